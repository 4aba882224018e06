// The channel segment: naming, creation, attachment and teardown of one end.
#include <fcntl.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstring>

#include "logferry/channel.hpp"
#include "logferry/system.hpp"
#include "system/robust_mutex.hpp"
#include "wire/channel_name.hpp"
#include "wire/shared_fields.hpp"

namespace logferry {

namespace {

const char* const SHM_DIRECTORY = "/dev/shm";

}  // namespace

Logferry_base::Logferry_base() noexcept : Logferry_base(false, false) {}

Logferry_base::Logferry_base(bool client_side_, bool owner_) noexcept
    : initialized(false),
      client_side(client_side_),
      owner(owner_),
      lost_messages(0),
      segment(static_cast<Channel_segment*>(MAP_FAILED))
{}

// Deliberately neither unmaps nor unlinks: only the application's end cleans up on its own.
Logferry_base::~Logferry_base() = default;

Logferry_client::Logferry_client() noexcept : Logferry_base(true, true) {}

Logferry_client::~Logferry_client() { uninit(); }

bool Logferry_base::init()
{
    if (initialized) {
        return true;
    }
    if (owner) {
        set_filename();
        sys->shm_unlink(filename.c_str());  // a stale object of the same name goes first
    } else if (filename.empty()) {
        report_error("initialization call with empty file name.");
        return false;
    }
    const bool ok = prepare_shm();
    if (ok) {
        initialized = true;
    }
    return ok;
}

bool Logferry_base::init(const std::string& name)
{
    if (initialized) {
        return true;
    }
    owner = false;
    if (name.empty()) {
        report_error("initialization call with empty file name.");
        return false;
    }
    filename = name;
    return init();
}

bool Logferry_base::prepare_shm()
{
    int fd = -1;
    if (client_side) {
        fd = sys->shm_open(filename.c_str(), O_CREAT | O_RDWR, CHANNEL_MODE);
        const int open_errno = errno;
        const std::string path = std::string(SHM_DIRECTORY) + filename;
        if (sys->chown(path.c_str(), -1, LOGGING_GROUP_ID) < 0) {
            report_error("error setting owner of " + filename + ": ", errno);
        }
        errno = open_errno;
    } else {
        fd = sys->shm_open(filename.c_str(), O_RDWR, CHANNEL_MODE);
    }
    File_descriptor_guard descriptor(fd);  // the mapping outlives the descriptor
    if (fd < 0) {
        report_error("error while opening the shared memory: ", errno);
        return false;
    }
    if (init_shm(descriptor)) {
        return true;
    }
    uninit_shm();
    return false;
}

bool Logferry_base::init_shm(int fd)
{
    if (owner && sys->ftruncate(fd, CHANNEL_SEGMENT_SIZE) == -1) {
        report_error("error while truncating the shared memory: ", errno);
        return false;
    }
    void* address = sys->mmap(nullptr, CHANNEL_SEGMENT_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (address == MAP_FAILED) {
        report_error("error while mapping the shared memory: ", errno);
        return false;
    }
    segment = static_cast<Channel_segment*>(address);

    timespec now{};
    if (owner) {
        std::memset(address, 0, CHANNEL_SEGMENT_SIZE);
        // A new channel starts gated: the daemon reads nothing ordinary before the
        // application has registered.
        atomic_store_u8(&segment->client_buffer_locked, 1);
        if (!init_robust_mutex(&segment->priority_mutex.mutex) || !init_robust_mutex(&segment->client_mutex.mutex) ||
            !init_robust_mutex(&segment->server_mutex.mutex)) {
            report_error("error while initializing the mutex.");
            return false;
        }
        if (sys->clock_gettime(CLOCK_MONOTONIC, &now) == 0) {
            atomic_store_i64(&segment->client_watchdog, static_cast<std::int64_t>(now.tv_sec));
        }
        return true;
    }
    if (sys->clock_gettime(CLOCK_MONOTONIC, &now) == 0) {
        atomic_store_i64(&segment->server_watchdog, static_cast<std::int64_t>(now.tv_sec));
    }
    return true;
}

void Logferry_base::uninit_shm()
{
    if (segment == MAP_FAILED) {
        return;
    }
    // The peer sees this end gone at its next look.
    atomic_store_i64(client_side ? &segment->client_watchdog : &segment->server_watchdog, 0);
    sys->munmap(segment, CHANNEL_SEGMENT_SIZE);
    segment = static_cast<Channel_segment*>(MAP_FAILED);
}

void Logferry_base::uninit()
{
    if (!initialized) {
        return;
    }
    uninit_shm();
    if (owner) {
        sys->shm_unlink(filename.c_str());
    }
    initialized = false;
}

void Logferry_base::set_filename() { filename = wire::channel_name_of(app_identifier); }

const std::string& Logferry_base::get_filename() const { return filename; }

void Logferry_base::set_app_identifier(const std::string& identifier) { app_identifier = identifier; }

void Logferry_base::take_ownership() { owner = true; }

bool Logferry_base::is_initialized() const { return initialized; }

}  // namespace logferry

// The priority area: registrations and control records that must reach the daemon ahead of
// the ordinary traffic, laid end to end from offset 0 with no framing of their own.
//
// Garbage from the peer: a `priority_size` above the area's 2048 bytes is taken as "the whole
// area". The readers then return all 2048 bytes (the daemon splits them by the records' own
// encoding and drops what does not parse) and zero the area; `push_priority` sees a non-empty
// area and `force_push_priority` an overflow, so no copy ever leaves the area. The size is
// read once per critical section and only the local copy is used.
#include <pthread.h>

#include <cstring>
#include <string>

#include "logferry/channel.hpp"
#include "logferry/message.hpp"
#include "logferry/system.hpp"
#include "system/robust_mutex.hpp"
#include "wire/shared_fields.hpp"
#include "wire/wire.hpp"

namespace logferry {

namespace {

// The forced append keeps one byte of the area unused.
constexpr std::size_t FORCED_PRIORITY_LIMIT = PRIORITY_DATA_SIZE - 1;

const char* const NOT_INITIALIZED = "shared memory not initialized.";

// The checks both writers make before they lock: false when the record is to be refused.
bool acceptable_priority_record(const std::vector<unsigned char>& bytes)
{
    if (bytes.empty() || bytes.size() > PRIORITY_DATA_SIZE) {
        return false;
    }
    if (!is_priority_kind(bytes[wire::KIND_AT])) {
        report_error("not a priority message type: " + std::to_string(static_cast<unsigned int>(bytes[wire::KIND_AT])));
        return false;
    }
    return true;
}

}  // namespace

bool Logferry_base::push_priority(const std::vector<unsigned char>& bytes)
{
    if (!initialized || !acceptable_priority_record(bytes)) {
        return false;
    }
    Mutex_lock_guard lock(&segment->priority_mutex.mutex, false);
    if (load_once(&segment->priority_size) != 0) {
        return false;  // the daemon has not taken the previous record yet; the caller retries
    }
    std::memcpy(segment->priority_data, bytes.data(), bytes.size());
    store_once(&segment->priority_size, static_cast<std::uint16_t>(bytes.size()));
    return true;
}

bool Logferry_base::force_push_priority(const std::vector<unsigned char>& bytes)
{
    if (!initialized || !acceptable_priority_record(bytes)) {
        return false;
    }
    Mutex_lock_guard lock(&segment->priority_mutex.mutex, false);
    const std::size_t used = load_once(&segment->priority_size);
    if (used + bytes.size() > FORCED_PRIORITY_LIMIT) {
        report_error("Priority buffer exceeded: ");
        return false;
    }
    std::memcpy(segment->priority_data + used, bytes.data(), bytes.size());
    store_once(&segment->priority_size, static_cast<std::uint16_t>(used + bytes.size()));
    return true;
}

std::vector<unsigned char> Logferry_base::pop_priority()
{
    if (!initialized) {
        report_error(NOT_INITIALIZED);
        return {};
    }
    Mutex_lock_guard lock(&segment->priority_mutex.mutex, false);
    return pop_priority_unsynced();
}

std::vector<unsigned char> Logferry_base::pop_priority_unsynced()
{
    if (!initialized) {
        report_error(NOT_INITIALIZED);
        return {};
    }
    std::size_t used = load_once(&segment->priority_size);
    if (used == 0) {
        return {};
    }
    if (used > PRIORITY_DATA_SIZE) {
        used = PRIORITY_DATA_SIZE;  // a size no writer can leave: take the whole area
    }
    std::vector<unsigned char> records(segment->priority_data, segment->priority_data + used);
    std::memset(segment->priority_data, 0, PRIORITY_DATA_SIZE);
    store_once(&segment->priority_size, 0);
    return records;
}

bool Logferry_base::is_priority_empty() const
{
    if (!initialized) {
        report_error(NOT_INITIALIZED);
        return true;
    }
    Mutex_lock_guard lock(&segment->priority_mutex.mutex, false);
    return load_once(&segment->priority_size) == 0;
}

bool Logferry_base::is_priority_empty_unsynced() const
{
    if (!initialized) {
        report_error(NOT_INITIALIZED);
        return true;
    }
    return load_once(&segment->priority_size) == 0;
}

void Logferry_base::clear_priority_data()
{
    if (!initialized) {
        report_error(NOT_INITIALIZED);
        return;
    }
    Mutex_lock_guard lock(&segment->priority_mutex.mutex, false);
    std::memset(segment->priority_data, 0, PRIORITY_DATA_SIZE);
    store_once(&segment->priority_size, 0);
}

void Logferry_base::lock_priority_mutex()
{
    if (!initialized) {
        report_error(NOT_INITIALIZED);
        return;
    }
    // A holder that died inside its critical section leaves the area as it was; it is used so.
    const int result = lock_robust_mutex(&segment->priority_mutex.mutex);
    if (result != 0) {
        report_error("error while locking the mutex: ", result);
    }
}

void Logferry_base::unlock_priority_mutex()
{
    if (!initialized) {
        report_error(NOT_INITIALIZED);
        return;
    }
    const int result = sys->pthread_mutex_unlock(&segment->priority_mutex.mutex);
    if (result != 0) {
        report_error("error while unlocking the mutex: ", result);
    }
}

}  // namespace logferry

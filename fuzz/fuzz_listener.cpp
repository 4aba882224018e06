// Fuzz harness: the listener list operations over a listener segment whose entries (names,
// picked_up and watchdog_reset flags) and indices the input chooses, from two applications
// and the daemon.
//
// The segment is a Listener_segment in private memory fenced by guard pages, its list mutex
// set up as the daemon does; no system-wide name is used. Two application listeners and one
// daemon listener are pointed at it. The daemon's clock is the harness's own (the input moves
// it and can make it fail). The input is:
//
//   flags (1 byte)       bit 0: scribbled start (else an all-zero list)
//                        bits 1, 2: application A, B not initialised
//                        bit 3: daemon not initialised, bit 4: daemon not listening,
//                        bit 5: daemon without watchdogs
//   own entries          A's and B's own_entry (-1 to 31) and unacknowledged_checks
//   if scribbled:        patches of the entries and indices (offset, length, bytes), and the
//                        daemon's 32 proxy watchdogs as offsets from the clock
//   operations           until the input ends (at most 200): push, check_list (with the last
//                        pushed name, a prefix or extension of it, or any name), pop, get_next,
//                        has_new_entry, is_empty, check_watchdogs, sync_list, clock moves and
//                        failures, and scribbles of the segment between operations
//
// The harness runs a reference model of every operation next to the library and compares,
// after each operation, the result, the diagnostic lines, every byte of the entries and
// indices, the applications' own_entry and unacknowledged_checks and the daemon's watchdogs.
// Indices above 31 (no correct end writes them) count as pointing at nothing usable:
// sync_list rescans from entry 0.
#include <errno.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "harness_support.hpp"
#include "logferry/listener.hpp"
#include "logferry/system.hpp"

namespace {

using logferry::Listener_entry;
using logferry::LISTENER_ENTRY_COUNT;
using logferry::LISTENER_NAME_SIZE;
using logferry::Listener_segment;
using logferry::Logferry_listener;
using logferry_fuzz::Reader;

const char* const HARNESS = "fuzz_listener";
constexpr std::size_t LIST_BYTES = offsetof(Listener_segment, list_mutex);

using Harness_system = logferry_fuzz::Clock_system;

struct Harness_state {
    logferry_fuzz::Guarded<Listener_segment> mapping;
    Harness_system system;
    Logferry_listener application_a{false};
    Logferry_listener application_b{false};
    Logferry_listener daemon{true};
};

Harness_state& harness_state()
{
    static Harness_state* state = new Harness_state();
    return *state;
}

// The model of one application's listener.
struct Model_application {
    bool initialized = true;
    std::int16_t own_entry = -1;
    std::uint8_t unacknowledged_checks = 0;
    std::string last_name;
};

// The model of the daemon's listener.
struct Model_daemon {
    bool initialized = true;
    bool listening = true;
    bool has_watchdogs = true;
    std::array<std::int64_t, LISTENER_ENTRY_COUNT> watchdogs{};
};

bool announced(const Listener_entry& entry) { return entry.channel_name[0] != 0 && entry.picked_up == 0; }
bool free_entry(const Listener_entry& entry) { return entry.channel_name[0] == 0 && entry.picked_up == 0; }

const std::string NOT_INITIALIZED = "logferry: shared memory not initialized.\n";
const std::string NAME_EMPTY = "logferry: shared memory name empty.\n";
const std::string NAME_TOO_LONG = "logferry: shared memory name too long.\n";
const std::string MISMATCH = "logferry: list entry mismatch.\n";
const std::string CLIENT_WATCHDOG = "logferry: client watchdog triggered.\n";
const std::string PROXY_WATCHDOG = "logferry: proxy watchdog triggered.\n";

// The designed list operations, on a plain copy of the segment.
class Model {
public:
    Listener_segment list{};
    Model_application applications[2];
    Model_daemon daemon;
    std::int64_t now = 1000;
    bool clock_fails = false;

    void sync_list()
    {
        const std::uint8_t read = list.read_index;
        if (read >= LISTENER_ENTRY_COUNT || list.entries[read].channel_name[0] == 0 ||
            list.entries[read].picked_up == 1) {
            list.read_index = 0;
            for (std::uint8_t i = 0; i < LISTENER_ENTRY_COUNT; ++i) {
                if (announced(list.entries[i])) {
                    list.read_index = i;
                    break;
                }
            }
        }
        const std::uint8_t write = list.write_index;
        if (write < LISTENER_ENTRY_COUNT && list.entries[write].channel_name[0] == 0 &&
            list.entries[write].picked_up != 1) {
            return;
        }
        list.write_index = list.read_index;
        for (std::uint8_t i = 0; i < LISTENER_ENTRY_COUNT; ++i) {
            if (free_entry(list.entries[i])) {
                list.write_index = i;
                break;
            }
        }
    }

    // A name the list can hold, else the refusal's text in `output`.
    static bool name_fits(const std::string& name, std::string& output)
    {
        if (name.empty()) {
            output = NAME_EMPTY;
            return false;
        }
        if (name.size() > LISTENER_NAME_SIZE) {
            output = NAME_TOO_LONG;
            return false;
        }
        return true;
    }

    bool push(Model_application& app, const std::string& name, std::string& output)
    {
        if (!app.initialized) {
            output = NOT_INITIALIZED;
            return false;
        }
        if (!name_fits(name, output)) {
            return false;
        }
        sync_list();
        const std::uint8_t write = list.write_index;
        Listener_entry& entry = list.entries[write];
        if (entry.channel_name[0] != 0) {
            return false;
        }
        std::memcpy(entry.channel_name, name.data(), name.size());
        app.unacknowledged_checks = 0;
        entry.watchdog_reset = 1;
        entry.picked_up = 0;
        app.own_entry = write;
        list.write_index = write + 1 > 31 ? 0 : static_cast<std::uint8_t>(write + 1);
        return true;
    }

    void pop_unsynced(Model_application& app)
    {
        Listener_entry& entry = list.entries[app.own_entry];
        std::memset(entry.channel_name, 0, LISTENER_NAME_SIZE);
        entry.picked_up = 0;
        app.unacknowledged_checks = 0;
        entry.watchdog_reset = 1;
        app.own_entry = -1;
    }

    bool check_list(Model_application& app, const std::string& name, std::string& output)
    {
        if (!app.initialized || app.own_entry < 0) {
            return false;
        }
        if (!name_fits(name, output)) {
            return false;
        }
        const Listener_entry& entry = list.entries[app.own_entry];
        const std::size_t length = name.size();
        if (std::memcmp(entry.channel_name, name.data(), length) != 0) {
            if (entry.channel_name[0] != 0) {
                output = MISMATCH;
            }
            return false;
        }
        if (length < LISTENER_NAME_SIZE && entry.channel_name[length] != 0) {
            output = MISMATCH;
            return false;
        }
        if (entry.picked_up != 0) {
            return true;
        }
        ++app.unacknowledged_checks;
        if (app.unacknowledged_checks <= 99) {
            return true;
        }
        pop_unsynced(app);
        output = CLIENT_WATCHDOG;
        return false;
    }

    bool pop(Model_application& app, std::string& output)
    {
        if (app.own_entry < 0) {
            return false;
        }
        if (!app.initialized) {
            output = NOT_INITIALIZED;
            return false;
        }
        pop_unsynced(app);
        return true;
    }

    std::string get_next(std::string& output)
    {
        if (!daemon.initialized) {
            output = NOT_INITIALIZED;
            return std::string();
        }
        sync_list();
        const std::uint8_t read = list.read_index;
        Listener_entry& entry = list.entries[read];
        if (entry.channel_name[0] == 0 || entry.picked_up == 1) {
            return std::string();
        }
        std::size_t length = 0;
        while (length < LISTENER_NAME_SIZE && entry.channel_name[length] != 0) {
            ++length;
        }
        std::string name(entry.channel_name, length);
        entry.picked_up = 1;
        list.read_index = read + 1 > 31 ? 0 : static_cast<std::uint8_t>(read + 1);
        return name;
    }

    bool has_new_entry(std::string& output)
    {
        if (!daemon.initialized) {
            output = NOT_INITIALIZED;
            return false;
        }
        return std::any_of(std::begin(list.entries), std::end(list.entries), announced);
    }

    bool is_empty(std::string& output)
    {
        if (!daemon.initialized) {
            output = NOT_INITIALIZED;
            return false;
        }
        return std::all_of(std::begin(list.entries), std::end(list.entries),
                           [](const Listener_entry& entry) { return entry.channel_name[0] == 0; });
    }

    void check_watchdogs(std::string& output)
    {
        if (!daemon.listening) {
            return;
        }
        if (!daemon.has_watchdogs) {
            output = "logferry: proxy watchdogs not allocated.\n";
            return;
        }
        if (!daemon.initialized) {
            output = NOT_INITIALIZED;
            return;
        }
        if (clock_fails) {
            output = std::string("logferry: error while getting time: ") + std::strerror(EINVAL) + "\n";
            return;
        }
        for (std::uint32_t i = 0; i < LISTENER_ENTRY_COUNT; ++i) {
            Listener_entry& entry = list.entries[i];
            std::int64_t& deadline = daemon.watchdogs[i];
            if (entry.watchdog_reset != 0) {
                deadline = 0;
                entry.watchdog_reset = 0;
            }
            if (entry.channel_name[0] != 0) {
                if (deadline == 0) {
                    deadline = now + 5;
                }
                if (deadline <= now) {
                    std::memset(entry.channel_name, 0, LISTENER_NAME_SIZE);
                    entry.picked_up = 0;
                    deadline = 0;
                    output += PROXY_WATCHDOG;
                }
            } else {
                entry.picked_up = 0;
                deadline = 0;
            }
        }
    }
};

class Driver : private logferry_fuzz::Driver_base<Harness_state, Listener_segment> {
public:
    Driver(Harness_state& state, Reader& in) : Driver_base(HARNESS, state, in) {}

    void set_up()
    {
        prepare();
        compare("set-up");
    }

private:
    Logferry_listener& application(int which) { return which == 0 ? state_.application_a : state_.application_b; }

    void prepare()
    {
        std::memset(segment_, 0, sizeof(Listener_segment));
        logferry_fuzz::init_robust_mutex(&segment_->list_mutex.mutex);
        model_ = Model();
        state_.system.now = model_.now;
        state_.system.clock_fails = false;

        const std::uint8_t flags = in_.u8();
        for (int which = 0; which < 2; ++which) {
            Model_application& app = model_.applications[which];
            app.initialized = (flags & (2 << which)) == 0;
            app.own_entry = static_cast<std::int16_t>(in_.u8() % (LISTENER_ENTRY_COUNT + 1)) - 1;
            app.unacknowledged_checks = in_.u8();
        }
        model_.daemon.initialized = (flags & 8) == 0;
        model_.daemon.listening = (flags & 16) == 0;
        model_.daemon.has_watchdogs = (flags & 32) == 0;
        if ((flags & 1) != 0) {
            const int patches = in_.u8() % 8;
            for (int i = 0; i < patches; ++i) {
                patch();
            }
            for (auto& deadline : model_.daemon.watchdogs) {
                const std::uint8_t code = in_.u8();
                deadline = code == 0 ? 0 : model_.now + static_cast<std::int8_t>(code) / 16;
            }
        }
        std::memcpy(&model_.list, segment_, LIST_BYTES);
        model_.list.read_index = segment_->read_index;
        model_.list.write_index = segment_->write_index;

        for (int which = 0; which < 2; ++which) {
            Logferry_listener& app = application(which);
            const Model_application& model_app = model_.applications[which];
            app.segment = segment_;
            app.initialized = model_app.initialized;
            app.listening = false;
            app.own_entry = model_app.own_entry;
            app.unacknowledged_checks = model_app.unacknowledged_checks;
            app.proxy_watchdogs.reset();
        }
        Logferry_listener& daemon = state_.daemon;
        daemon.segment = segment_;
        daemon.initialized = model_.daemon.initialized;
        daemon.listening = model_.daemon.listening;
        daemon.own_entry = -1;
        daemon.unacknowledged_checks = 0;
        if (model_.daemon.has_watchdogs) {
            daemon.proxy_watchdogs.reset(new std::int64_t[LISTENER_ENTRY_COUNT]());
            std::copy(model_.daemon.watchdogs.begin(), model_.daemon.watchdogs.end(), daemon.proxy_watchdogs.get());
        } else {
            daemon.proxy_watchdogs.reset();
        }
    }

    // Overwrites bytes of the entries or the two indices (never the mutex), in the segment
    // only: the model learns of it by copying.
    void patch()
    {
        const std::uint16_t where = in_.u16() % (LIST_BYTES + 2);
        const std::string bytes = in_.bytes(in_.u8() % 80);
        if (where >= LIST_BYTES) {
            std::uint8_t* index = where == LIST_BYTES ? &segment_->read_index : &segment_->write_index;
            if (!bytes.empty()) {
                *index = static_cast<std::uint8_t>(bytes[0]);
            }
            return;
        }
        const std::size_t count = std::min<std::size_t>(bytes.size(), LIST_BYTES - where);
        std::memcpy(reinterpret_cast<unsigned char*>(segment_) + where, bytes.data(), count);
    }

    std::string name_argument(const Model_application& app)
    {
        const std::uint8_t choice = in_.u8();
        std::string name = app.last_name;
        switch (choice % 5) {
        case 0:
            return name;
        case 1:
            return name.substr(0, name.empty() ? 0 : in_.u8() % name.size());
        case 2:
            return name + static_cast<char>(in_.u8());
        default:
            return in_.bytes(in_.u8() % 40);
        }
    }

public:
    void step(std::uint8_t operation)
    {
        const int which = (operation & 0x80) != 0 ? 1 : 0;
        Logferry_listener& app = application(which);
        Model_application& model_app = model_.applications[which];
        std::string expected_output;
        logferry_fuzz::Captured_cerr cerr;
        std::string what;

        switch ((operation & 0x3F) % 12) {
        case 0:
        case 1: {
            const std::string name = (operation & 0x40) != 0 ? name_argument(model_app) : in_.bytes(in_.u8() % 40);
            what = "push of " + logferry_fuzz::quoted(name);
            const bool expected = model_.push(model_app, name, expected_output);
            check_result(app.push(name), expected, what);
            if (expected) {
                model_app.last_name = name;
            }
            break;
        }
        case 2:
        case 3: {
            const std::string name = name_argument(model_app);
            what = "check_list of " + logferry_fuzz::quoted(name);
            check_result(app.check_list(name), model_.check_list(model_app, name, expected_output), what);
            break;
        }
        case 4:
            what = "pop";
            check_result(app.pop(), model_.pop(model_app, expected_output), what);
            break;
        case 5: {
            what = "get_next";
            const std::string expected = model_.get_next(expected_output);
            const std::string got = state_.daemon.get_next();
            if (got != expected) {
                logferry_fuzz::violation(HARNESS, what + " returned " + logferry_fuzz::quoted(got) + ", expected " +
                                                      logferry_fuzz::quoted(expected));
            }
            break;
        }
        case 6:
            what = "has_new_entry";
            check_result(state_.daemon.has_new_entry(), model_.has_new_entry(expected_output), what);
            break;
        case 7:
            what = "is_empty";
            check_result(state_.daemon.is_empty(), model_.is_empty(expected_output), what);
            break;
        case 8: {
            what = "check_watchdogs";
            logferry::System_lib* const previous = logferry::sys;
            logferry::sys = &state_.system;
            state_.daemon.check_watchdogs();
            logferry::sys = previous;
            model_.check_watchdogs(expected_output);
            break;
        }
        case 9:
            what = "sync_list";
            state_.daemon.sync_list();
            model_.sync_list();
            break;
        case 10: {
            what = "clock change";
            const std::uint8_t change = in_.u8();
            model_.clock_fails = (change & 0x80) != 0;
            model_.now += change & 0x0F;
            state_.system.clock_fails = model_.clock_fails;
            state_.system.now = model_.now;
            break;
        }
        default:
            what = "scribble";
            patch();
            std::memcpy(&model_.list, segment_, LIST_BYTES);
            model_.list.read_index = segment_->read_index;
            model_.list.write_index = segment_->write_index;
            break;
        }
        const std::string output = cerr.take();
        logferry_fuzz::expect_output(HARNESS, output, expected_output, what);
        compare(what);
    }

private:
    void check_result(bool got, bool expected, const std::string& what)
    {
        if (got != expected) {
            logferry_fuzz::violation(HARNESS, what + " returned " + (got ? "true" : "false"));
        }
    }

    void compare(const std::string& what)
    {
        if (std::memcmp(segment_, &model_.list, LIST_BYTES) != 0) {
            for (std::size_t i = 0; i < LIST_BYTES; ++i) {
                const unsigned char got = reinterpret_cast<const unsigned char*>(segment_)[i];
                const unsigned char expected = reinterpret_cast<const unsigned char*>(&model_.list)[i];
                if (got != expected) {
                    logferry_fuzz::violation(HARNESS, "after " + what + ": entry " + std::to_string(i / 34) + " byte " +
                                                          std::to_string(i % 34) + " is " + std::to_string(got) +
                                                          ", expected " + std::to_string(expected));
                }
            }
        }
        if (segment_->read_index != model_.list.read_index || segment_->write_index != model_.list.write_index) {
            logferry_fuzz::violation(HARNESS, "after " + what + ": indices " + std::to_string(segment_->read_index) +
                                                  "/" + std::to_string(segment_->write_index) + ", expected " +
                                                  std::to_string(model_.list.read_index) + "/" +
                                                  std::to_string(model_.list.write_index));
        }
        for (int which = 0; which < 2; ++which) {
            const Logferry_listener& app = application(which);
            const Model_application& model_app = model_.applications[which];
            if (app.own_entry != model_app.own_entry || app.unacknowledged_checks != model_app.unacknowledged_checks) {
                logferry_fuzz::violation(HARNESS, "after " + what + ": application " + std::to_string(which) +
                                                      " has own_entry " + std::to_string(app.own_entry) + " and " +
                                                      std::to_string(app.unacknowledged_checks) + " checks, expected " +
                                                      std::to_string(model_app.own_entry) + " and " +
                                                      std::to_string(model_app.unacknowledged_checks));
            }
        }
        if (state_.daemon.proxy_watchdogs) {
            for (std::uint32_t i = 0; i < LISTENER_ENTRY_COUNT; ++i) {
                if (state_.daemon.proxy_watchdogs[i] != model_.daemon.watchdogs[i]) {
                    logferry_fuzz::violation(HARNESS, "after " + what + ": proxy watchdog " + std::to_string(i) +
                                                          " is " + std::to_string(state_.daemon.proxy_watchdogs[i]) +
                                                          ", expected " + std::to_string(model_.daemon.watchdogs[i]));
                }
            }
        }
    }

    Model model_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    return logferry_fuzz::run_driver<Driver>(harness_state(), data, size);
}

// Fuzz harness: the priority area of a channel segment over a `priority_size` and data that
// the input chooses, written and read from both ends.
//
// The segment is a real Channel_segment in private memory fenced by guard pages, its mutexes
// set up as the creating end does. The input is:
//
//   flags (1 byte)       bit 0: start from scribbled state (else a fresh segment)
//   if scribbled:        priority_size (u16, any value), then a patch of priority_data
//                        (offset, length, bytes)
//   operations           until the input ends (at most 200): push_priority, force_push_priority
//                        (record length classes up to and past 2048, any kind byte),
//                        pop_priority, explicit lock + pop_priority_unsynced + unlock,
//                        is_priority_empty(_unsynced), clear_priority_data, and scribbles of
//                        the size and the data between operations
//
// The harness keeps an exact model of the area (its 2048 bytes and the 16-bit size) and
// checks after every operation the result, the diagnostic lines and every byte of the area.
// A size above 2048 (which no writer leaves) counts as "the whole area": readers return all
// 2048 bytes and empty it, push_priority sees it occupied, force_push_priority overflowing.
#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "harness_support.hpp"
#include "logferry/channel.hpp"
#include "logferry/message.hpp"

namespace {

using logferry::Channel_segment;
using logferry::PRIORITY_DATA_SIZE;
using logferry_fuzz::Reader;
using Bytes = std::vector<unsigned char>;

const char* const HARNESS = "fuzz_channel_priority";
constexpr std::size_t FORCED_LIMIT = PRIORITY_DATA_SIZE - 1;

struct Harness_state {
    logferry_fuzz::Guarded<Channel_segment> mapping;
    logferry::Logferry_client application;
    logferry::Logferry_base daemon;
};

Harness_state& harness_state()
{
    static Harness_state* state = new Harness_state();
    return *state;
}

std::size_t record_length(Reader& in)
{
    static const std::size_t boundaries[] = {0,    1,    2,    1023, 1024, 1025, 2045, 2046,
                                             2047, 2048, 2049, 2050, 4095, 4096, 65535};
    switch (in.u8() % 4) {
    case 0:
        return in.u8() % 32;
    case 1:
        return in.u16() % 2100;
    case 2:
        return boundaries[in.u8() % (sizeof boundaries / sizeof boundaries[0])];
    default:
        return in.u8();
    }
}

Bytes make_record(std::size_t length, unsigned char kind, std::uint32_t serial)
{
    Bytes record(length);
    for (std::size_t i = 0; i < length; ++i) {
        record[i] = static_cast<unsigned char>(serial * 17u + i * 13u + 1u);
    }
    if (length > 0) {
        record[0] = kind;
    }
    return record;
}

class Driver : private logferry_fuzz::Driver_base<Harness_state, Channel_segment> {
public:
    Driver(Harness_state& state, Reader& in) : Driver_base(HARNESS, state, in) {}

    void set_up()
    {
        logferry_fuzz::reset_channel_segment(segment_);
        data_.fill(0);
        size_ = 0;
        if ((in_.u8() & 1) != 0) {
            size_ = in_.u16();
            segment_->priority_size = size_;
            patch_data();
        }
        for (logferry::Logferry_base* end :
             {static_cast<logferry::Logferry_base*>(&state_.application), &state_.daemon}) {
            end->segment = segment_;
            end->initialized = true;
        }
        state_.application.client_side = true;
        state_.application.owner = true;
        state_.daemon.client_side = false;
        state_.daemon.owner = false;
    }

    void patch_data()
    {
        const std::size_t offset = in_.u16() % PRIORITY_DATA_SIZE;
        const std::string bytes = in_.bytes(in_.u16() % (PRIORITY_DATA_SIZE + 1));
        const std::size_t count = std::min(bytes.size(), PRIORITY_DATA_SIZE - offset);
        std::memcpy(segment_->priority_data + offset, bytes.data(), count);
        std::memcpy(data_.data() + offset, bytes.data(), count);
    }

    // One operation, then the area compared with the model.
    void step(std::uint8_t operation)
    {
        apply(operation);
        compare_area();
    }

private:
    void apply(std::uint8_t operation)
    {
        logferry::Logferry_base& end = logferry_fuzz::end_of(state_, operation);
        const unsigned int choice = (operation & 0x7FU) % 9;
        if (choice < 3) {
            push(end, choice == 2);  // a forced push one time in three
            return;
        }
        switch (choice) {
        case 3: {
            logferry_fuzz::Captured_cerr cerr;
            const Bytes taken = end.pop_priority();
            expect_output(cerr.take(), "", "pop_priority");
            popped(taken, "pop_priority");
            break;
        }
        case 4: {
            logferry_fuzz::Captured_cerr cerr;
            end.lock_priority_mutex();
            const Bytes taken = end.pop_priority_unsynced();
            end.unlock_priority_mutex();
            expect_output(cerr.take(), "", "lock, pop_priority_unsynced, unlock");
            popped(taken, "pop_priority_unsynced");
            break;
        }
        case 5: {
            logferry_fuzz::Captured_cerr cerr;
            const bool synced = (in_.u8() & 1) != 0;
            const bool empty = synced ? end.is_priority_empty() : end.is_priority_empty_unsynced();
            expect_output(cerr.take(), "", "is_priority_empty");
            expect(empty == (size_ == 0), "is_priority_empty said " + std::string(empty ? "empty" : "not empty") +
                                              " with a size of " + std::to_string(size_));
            break;
        }
        case 6: {
            logferry_fuzz::Captured_cerr cerr;
            end.clear_priority_data();
            expect_output(cerr.take(), "", "clear_priority_data");
            data_.fill(0);
            size_ = 0;
            break;
        }
        case 7:
            size_ = in_.u16();
            segment_->priority_size = size_;
            break;
        default:
            patch_data();
            break;
        }
    }

    void push(logferry::Logferry_base& end, bool forced)
    {
        const std::size_t length = record_length(in_);
        const unsigned char kind = in_.u8();
        const Bytes record = make_record(length, kind, ++serial_);
        const std::string what = std::string(forced ? "force_push_priority" : "push_priority") + " of " +
                                 std::to_string(length) + " bytes, kind " + std::to_string(kind) + " with size " +
                                 std::to_string(size_);

        logferry_fuzz::Captured_cerr cerr;
        const bool accepted = forced ? end.force_push_priority(record) : end.push_priority(record);
        const std::string output = cerr.take();

        bool expected = false;
        std::string expected_output;
        if (length == 0 || length > PRIORITY_DATA_SIZE) {
            // refused silently
        } else if (!logferry::is_priority_kind(kind)) {
            expected_output = "logferry: not a priority message type: " + std::to_string(kind) + "\n";
        } else if (!forced) {
            expected = size_ == 0;
        } else if (static_cast<std::size_t>(size_) + length > FORCED_LIMIT) {
            expected_output = "logferry: Priority buffer exceeded: \n";
        } else {
            expected = true;
        }
        expect(accepted == expected, what + (accepted ? " was accepted" : " was refused"));
        expect_output(output, expected_output, what);
        if (accepted) {
            const std::size_t at = forced ? size_ : 0;
            std::copy(record.begin(), record.end(), data_.begin() + static_cast<long>(at));
            size_ = static_cast<std::uint16_t>(at + length);
        }
    }

    void popped(const Bytes& taken, const std::string& what)
    {
        const std::size_t used = std::min<std::size_t>(size_, PRIORITY_DATA_SIZE);
        expect(taken.size() == used,
               what + " returned " + std::to_string(taken.size()) + " bytes with a size of " + std::to_string(size_));
        expect(std::equal(taken.begin(), taken.end(), data_.begin()),
               what + " returned other bytes than the area held");
        if (used != 0) {
            data_.fill(0);
            size_ = 0;
        }
    }

    void compare_area()
    {
        expect(segment_->priority_size == size_,
               "priority_size is " + std::to_string(segment_->priority_size) + ", expected " + std::to_string(size_));
        if (std::memcmp(segment_->priority_data, data_.data(), PRIORITY_DATA_SIZE) == 0) {
            return;
        }
        for (std::size_t i = 0; i < PRIORITY_DATA_SIZE; ++i) {
            expect(segment_->priority_data[i] == data_[i], "priority_data[" + std::to_string(i) + "] is " +
                                                               std::to_string(segment_->priority_data[i]) +
                                                               ", expected " + std::to_string(data_[i]));
        }
    }

    std::array<unsigned char, PRIORITY_DATA_SIZE> data_{};
    std::uint16_t size_ = 0;
    std::uint32_t serial_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    return logferry_fuzz::run_driver<Driver>(harness_state(), data, size);
}

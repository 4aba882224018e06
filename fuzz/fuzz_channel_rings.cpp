// Fuzz harness: the two rings of a channel segment, driven from both ends over a segment
// whose indices, length prefixes, bytes and gate the input chooses.
//
// The segment is a real Channel_segment (its three robust mutexes set up as the creating end
// does) in private memory fenced by guard pages; an application end (Logferry_client) and a
// daemon end (Logferry_base) are pointed at it. The input is:
//
//   flags (1 byte)       bit 0: start from scribbled state (else a fresh segment)
//                        bit 1: the gate byte starts set
//   if scribbled:        four indices (client R, W, server R, W), each a u32 preceded by a
//                        byte that says whether to take it raw or modulo (capacity + 4);
//                        then a patch count and patches (ring, offset, length, bytes)
//   operations           until the input ends (at most 200): pushes at either end (record
//                        length classes that reach every boundary, any kind byte), pops,
//                        unsynced pops, is_empty, gate changes, and scribbles of indices,
//                        bytes and the gate between operations (the peer writing garbage)
//
// Expectations checked on every input:
//   - nothing is read or written outside the segment (guard pages, AddressSanitizer);
//   - push refuses exactly: an empty record or one above the ring's capacity silently; an
//     application record of a kind other than 0-21, 23, 24 with "logferry: unknown message
//     type K"; every other record up to min(capacity - 2, 65535) bytes is accepted whatever
//     the ring holds (a full ring discards, never refuses);
//   - no operation writes any other diagnostic line;
//   - a popped record is never longer than the ring allows, and after a push or pop both
//     indices of that ring lie within it (at most capacity - 3);
// and while the ring has only seen correct operations (fresh start, no scribble yet):
//   - every popped record is one that was pushed, in order; records are skipped only when
//     the writer counted discards (at most one record per counted discard step); without
//     discards the ring is exactly a FIFO, is_empty agrees with it, and a drained ring is
//     back at R = W = 0.
#include <algorithm>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "harness_support.hpp"
#include "logferry/channel.hpp"
#include "wire/ring_framing.hpp"
#include "wire/shared_fields.hpp"
#include "wire/wire.hpp"

namespace {

using logferry::Channel_segment;
using logferry::CLIENT_BUFFER_SIZE;
using logferry::SERVER_BUFFER_SIZE;
using logferry_fuzz::Reader;
using Bytes = std::vector<unsigned char>;

const char* const HARNESS = "fuzz_channel_rings";
constexpr std::uint32_t MAX_FRAMED = logferry::wire::MAX_FRAMED_RECORD_SIZE;

struct Ring_view {
    unsigned char* bytes;
    std::uint32_t* read_index;
    std::uint32_t* write_index;
    std::uint32_t capacity;
};

Ring_view client_ring(Channel_segment* segment)
{
    return {segment->client_buffer, &segment->client_read_index, &segment->client_write_index, CLIENT_BUFFER_SIZE};
}

Ring_view server_ring(Channel_segment* segment)
{
    return {segment->server_buffer, &segment->server_read_index, &segment->server_write_index, SERVER_BUFFER_SIZE};
}

// What the harness knows about one ring while it has only seen correct operations.
struct Ring_model {
    std::deque<Bytes> queue;
    std::uint64_t skipped = 0;  // records that vanished through the writer's discards
};

struct Harness_state {
    logferry_fuzz::Guarded<Channel_segment> mapping;
    logferry::Logferry_client application;  // writes the client ring, reads the server ring
    logferry::Logferry_base daemon;         // writes the server ring, reads the client ring
};

// Built once and never destroyed: the ends must not unmap the harness's memory at exit.
Harness_state& harness_state()
{
    static Harness_state* state = new Harness_state();
    return *state;
}

std::uint32_t index_value(Reader& in, std::uint32_t capacity)
{
    const bool raw = (in.u8() & 1) != 0;
    const std::uint32_t value = in.u32();
    return raw ? value : value % (capacity + 4);
}

void patch_ring(Reader& in, Channel_segment* segment)
{
    const Ring_view ring = (in.u8() & 1) != 0 ? server_ring(segment) : client_ring(segment);
    const std::uint32_t offset = in.u32() % ring.capacity;
    const std::size_t wanted = in.u16() % 512;
    const std::string data = in.bytes(wanted);
    const std::size_t room = ring.capacity - offset;
    std::memcpy(ring.bytes + offset, data.data(), data.size() < room ? data.size() : room);
}

// A record length that reaches every interesting boundary of both rings.
std::size_t record_length(Reader& in, std::uint32_t capacity)
{
    static const std::size_t boundaries[] = {0,
                                             1,
                                             2,
                                             3,
                                             SERVER_BUFFER_SIZE - 4,
                                             SERVER_BUFFER_SIZE - 3,
                                             SERVER_BUFFER_SIZE - 2,
                                             SERVER_BUFFER_SIZE - 1,
                                             SERVER_BUFFER_SIZE,
                                             SERVER_BUFFER_SIZE + 1,
                                             MAX_FRAMED - 1,
                                             MAX_FRAMED,
                                             MAX_FRAMED + 1,
                                             MAX_FRAMED + 2,
                                             CLIENT_BUFFER_SIZE - 4,
                                             CLIENT_BUFFER_SIZE - 3,
                                             CLIENT_BUFFER_SIZE - 2,
                                             CLIENT_BUFFER_SIZE - 1,
                                             CLIENT_BUFFER_SIZE,
                                             CLIENT_BUFFER_SIZE + 1};
    const std::uint8_t length_class = in.u8();
    switch (length_class % 8) {
    case 0:
    case 1:
    case 2:
        return in.u8() % 64;
    case 3:
        return in.u8();
    case 4:
        return in.u16() % 4096;
    case 5:
        return in.u16();
    case 6:
        return boundaries[in.u8() % (sizeof boundaries / sizeof boundaries[0])];
    default:
        return in.u32() % (capacity + 3);
    }
}

Bytes make_record(std::size_t length, unsigned char kind, std::uint32_t serial)
{
    Bytes record(length);
    for (std::size_t i = 0; i < length; ++i) {
        record[i] = static_cast<unsigned char>(serial * 131u + i * 7u + (i >> 8));
    }
    if (length > 0) {
        record[0] = kind;
    }
    return record;
}

std::string describe_ring(const Ring_view& ring)
{
    return "R=" + std::to_string(*ring.read_index) + " W=" + std::to_string(*ring.write_index) +
           " C=" + std::to_string(ring.capacity);
}

class Driver : private logferry_fuzz::Driver_base<Harness_state, Channel_segment> {
public:
    Driver(Harness_state& state, Reader& in) : Driver_base(HARNESS, state, in) {}

    void set_up()
    {
        logferry_fuzz::reset_channel_segment(segment_);

        const std::uint8_t flags = in_.u8();
        segment_->client_buffer_locked = (flags & 2) != 0 ? 1 : 0;
        if ((flags & 1) != 0) {
            pristine_ = false;
            segment_->client_read_index = index_value(in_, CLIENT_BUFFER_SIZE);
            segment_->client_write_index = index_value(in_, CLIENT_BUFFER_SIZE);
            segment_->server_read_index = index_value(in_, SERVER_BUFFER_SIZE);
            segment_->server_write_index = index_value(in_, SERVER_BUFFER_SIZE);
            const int patches = in_.u8() % 8;
            for (int i = 0; i < patches; ++i) {
                patch_ring(in_, segment_);
            }
        }

        for (logferry::Logferry_base* end :
             {static_cast<logferry::Logferry_base*>(&state_.application), &state_.daemon}) {
            end->segment = segment_;
            end->initialized = true;
            end->lost_messages = 0;
        }
        state_.application.client_side = true;
        state_.application.owner = true;
        state_.daemon.client_side = false;
        state_.daemon.owner = false;
    }

    void step(std::uint8_t operation)
    {
        const bool by_daemon = (operation & 0x80) != 0;
        logferry::Logferry_base& end = logferry_fuzz::end_of(state_, operation);
        switch ((operation & 0x7F) % 10) {
        case 0:
        case 1:
            push(end, by_daemon);
            break;
        case 2:
        case 3:
            pop(end, by_daemon);
            break;
        case 4:
            pop_unsynced(end, by_daemon);
            break;
        case 5:
            is_empty(end, by_daemon);
            break;
        case 6: {
            logferry_fuzz::Captured_cerr cerr;
            if ((in_.u8() & 1) != 0) {
                end.lock_client_buffer();
            } else {
                end.unlock_client_buffer();
            }
            expect_output(cerr.take(), "", "gate change");
            break;
        }
        case 7:
            scribble_index();
            break;
        case 8:
            pristine_ = false;
            patch_ring(in_, segment_);
            break;
        default:
            pristine_ = false;
            segment_->client_buffer_locked = in_.u8();
            break;
        }
    }

private:
    // The ring an end writes (own) or reads.
    Ring_view ring_of(bool daemon_end, bool own) const
    {
        const bool client_ring_selected = daemon_end ? !own : own;
        return client_ring_selected ? client_ring(segment_) : server_ring(segment_);
    }
    Ring_model& model_of(const Ring_view& ring)
    {
        return ring.capacity == CLIENT_BUFFER_SIZE ? client_model_ : server_model_;
    }
    // The end that writes a ring counts that ring's discards.
    std::uint64_t discards_of(const Ring_view& ring) const
    {
        return ring.capacity == CLIENT_BUFFER_SIZE ? state_.application.lost_messages.load()
                                                   : state_.daemon.lost_messages.load();
    }

    void push(logferry::Logferry_base& end, bool by_daemon)
    {
        const Ring_view ring = ring_of(by_daemon, true);
        const std::size_t length = record_length(in_, ring.capacity);
        const unsigned char kind = in_.u8();
        const Bytes record = make_record(length, kind, ++serial_);

        logferry_fuzz::Captured_cerr cerr;
        const bool accepted = end.push(record);
        const std::string output = cerr.take();

        const std::size_t certainly_placeable =
            std::min<std::size_t>(ring.capacity - logferry::wire::LENGTH_PREFIX_SIZE, MAX_FRAMED);
        const bool kind_refused = !by_daemon && !logferry::wire::is_ring_kind(kind);
        const std::string kind_message = "logferry: unknown message type " + std::to_string(kind) + "\n";
        const std::string what = "push of " + std::to_string(length) + " bytes, kind " + std::to_string(kind) +
                                 (by_daemon ? " by the daemon" : " by the application");
        if (length == 0 || length > ring.capacity) {
            expect(!accepted, what + " was accepted");
            expect_output(output, "", what);
            return;
        }
        if (length <= certainly_placeable) {
            expect(accepted == !kind_refused, what + (accepted ? " was accepted" : " was refused"));
            expect_output(output, kind_refused ? kind_message : "", what);
        } else {
            // Records the framing cannot hold: refused, with or without the kind line.
            expect(!accepted || !kind_refused, what + " was accepted");
            if (!(output.empty() || (kind_refused && output == kind_message))) {
                expect_output(output, "", what);
            }
        }
        if (accepted) {
            check_indices(ring, what);
            model_of(ring).queue.push_back(record);
        }
    }

    void pop(logferry::Logferry_base& end, bool by_daemon)
    {
        const Ring_view ring = ring_of(by_daemon, false);
        logferry_fuzz::Captured_cerr cerr;
        const Bytes record = end.pop();
        const std::string what = by_daemon ? "pop by the daemon" : "pop by the application";
        expect_output(cerr.take(), "", what);
        const bool gated = by_daemon && logferry::atomic_load_u8(&segment_->client_buffer_locked) != 0;
        if (gated) {
            expect(record.empty(), what + " read through the gate");
            return;
        }
        popped(ring, record, what);
    }

    void pop_unsynced(logferry::Logferry_base& end, bool by_daemon)
    {
        const bool own = (in_.u8() & 1) != 0;
        const Ring_view ring = ring_of(by_daemon, own);
        logferry_fuzz::Captured_cerr cerr;
        const Bytes record = end.pop_unsynced(own);
        const std::string what = std::string("unsynced pop of the ") + (own ? "own" : "incoming") + " ring by the " +
                                 (by_daemon ? "daemon" : "application");
        expect_output(cerr.take(), "", what);
        popped(ring, record, what);
    }

    void popped(const Ring_view& ring, const Bytes& record, const std::string& what)
    {
        expect(record.size() <= std::min<std::size_t>(ring.capacity - logferry::wire::LENGTH_PREFIX_SIZE, MAX_FRAMED),
               what + " returned " + std::to_string(record.size()) + " bytes");
        check_indices(ring, what);
        if (!pristine_) {
            return;
        }
        Ring_model& model = model_of(ring);
        const std::uint64_t discards = discards_of(ring);
        if (record.empty()) {
            // The ring holds nothing: whatever the harness still expected was discarded.
            model.skipped += model.queue.size();
            model.queue.clear();
        } else {
            std::size_t found = 0;
            while (found < model.queue.size() && model.queue[found] != record) {
                ++found;
            }
            expect(found < model.queue.size(), what + " returned a record of " + std::to_string(record.size()) +
                                                   " bytes that was never pushed (" + describe_ring(ring) + ")");
            model.skipped += found;
            model.queue.erase(model.queue.begin(), model.queue.begin() + static_cast<long>(found) + 1);
        }
        expect(model.skipped <= discards, what + ": " + std::to_string(model.skipped) + " records lost, " +
                                              std::to_string(discards) + " discard steps counted (" +
                                              describe_ring(ring) + ")");
        if (discards == 0 && model.queue.empty()) {
            expect(*ring.read_index == 0 && *ring.write_index == 0 && ring.bytes[0] == 0 && ring.bytes[1] == 0,
                   what + " left a drained ring at " + describe_ring(ring));
        }
    }

    void is_empty(logferry::Logferry_base& end, bool by_daemon)
    {
        const Ring_view ring = ring_of(by_daemon, false);
        logferry_fuzz::Captured_cerr cerr;
        const bool empty = end.is_empty();
        const std::string what = by_daemon ? "is_empty of the daemon" : "is_empty of the application";
        expect_output(cerr.take(), "", what);
        if (pristine_ && discards_of(ring) == 0) {
            expect(empty == model_of(ring).queue.empty(), what + " said " + (empty ? "empty" : "not empty") + " with " +
                                                              std::to_string(model_of(ring).queue.size()) +
                                                              " records waiting (" + describe_ring(ring) + ")");
        }
    }

    void scribble_index()
    {
        pristine_ = false;
        const std::uint8_t which = in_.u8();
        const Ring_view ring = (which & 1) != 0 ? server_ring(segment_) : client_ring(segment_);
        std::uint32_t* index = (which & 2) != 0 ? ring.write_index : ring.read_index;
        *index = index_value(in_, ring.capacity);
    }

    void check_indices(const Ring_view& ring, const std::string& what)
    {
        expect(*ring.read_index <= ring.capacity - 3 && *ring.write_index <= ring.capacity - 3,
               what + " left an index outside the ring: " + describe_ring(ring));
    }

    bool pristine_ = true;
    std::uint32_t serial_ = 0;
    Ring_model client_model_;
    Ring_model server_model_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    return logferry_fuzz::run_driver<Driver>(harness_state(), data, size);
}

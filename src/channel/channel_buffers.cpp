// The two rings of a channel: record framing, wrap-around, the discard step and the gate.
//
// Ring framing (wire/ring_framing.hpp): a 16-bit length prefix, then the record. Records never
// wrap: one that does not fit before the end goes to position 0. R (read index) points at the
// length prefix of the oldest unread record, W (write index) where the next record goes. Every byte outside an unread record is 0, so a
// zero prefix means "no record here". R = W is an empty ring when the prefix at W is 0 and a
// full one otherwise. A reader that finds no record at R while R > W follows the writer's wrap
// to 0; a reader that drains the ring returns it to R = W = 0 with every byte zero.
//
// Garbage from the peer. The segment is written by another process, so this end never trusts
// what it finds there:
// - Indices. A correct writer never leaves W closer than three bytes to the end (it wraps to 0
//   instead) and a correct reader never leaves R there either (it moves to the next record or
//   to 0). An index above C - 3 is therefore corruption: the ring is restarted empty (all
//   bytes 0, R = W = 0) before anything else is done with it. This is not a discard step and
//   is not counted as lost messages.
// - Length prefixes. A prefix that would run past the ring's end is cut at the end, one that
//   would run over W is cut at W (the reader's clamps); the copy and the zeroing never leave
//   the ring.
// - Every shared index and prefix is read once into a local, checked, and only the local is
//   used to address the ring, so a value that changes under our feet cannot move an access
//   outside it. Before the writer copies, it checks once more that the record ends inside the
//   ring, and restarts the ring empty if not (unreachable for any state a correct peer makes).
// - The writer's discard loops end by themselves for every ring (each step moves R forward
//   by at least two bytes or back to 0); they are still bounded, and a ring that outlasts the
//   bound is restarted empty.
// - Records of C - 1 and C bytes (they need two bytes more than the ring has) and records
//   over 65535 bytes (the prefix cannot describe them) are refused like oversized records.
//
// For every state a correct pair of ends can produce, the behaviour is exactly the ring
// protocol above: none of the repairs can trigger.
#include <pthread.h>
#include <sys/mman.h>
#include <time.h>  // NOLINT(modernize-deprecated-headers): POSIX clock_gettime and CLOCK_MONOTONIC

#include <cerrno>

#include <cstring>
#include <string>

#include "logferry/channel.hpp"
#include "logferry/system.hpp"
#include "runtime/front_end_hooks.hpp"
#include "system/robust_mutex.hpp"
#include "system/timed_lock.hpp"
#include "wire/ring_framing.hpp"
#include "wire/shared_fields.hpp"
#include "wire/wire.hpp"

namespace logferry {

namespace {

using wire::LENGTH_PREFIX_SIZE;

// One ring of the segment.
struct Ring {
    unsigned char* bytes;
    std::uint32_t* read_index;
    std::uint32_t* write_index;
    pthread_mutex_t* mutex;
    std::uint32_t capacity;
};

Ring client_ring(Channel_segment* segment)
{
    return Ring{segment->client_buffer, &segment->client_read_index, &segment->client_write_index,
                &segment->client_mutex.mutex, CLIENT_BUFFER_SIZE};
}

Ring server_ring(Channel_segment* segment)
{
    return Ring{segment->server_buffer, &segment->server_read_index, &segment->server_write_index,
                &segment->server_mutex.mutex, SERVER_BUFFER_SIZE};
}

// The highest position at which a correct end leaves an index.
std::uint32_t last_index(const Ring& ring) { return wire::last_frame_start(ring.capacity); }

// The length prefix at `at`; the caller guarantees at + 1 < capacity.
std::uint32_t prefix_at(const Ring& ring, std::uint32_t at) { return wire::load_prefix(ring.bytes + at); }

// All bytes 0, R = W = 0.
void restart_empty(const Ring& ring)
{
    std::memset(ring.bytes, 0, ring.capacity);
    store_once(ring.read_index, 0);
    store_once(ring.write_index, 0);
}

// Reads both indices; a ring whose indices no correct end can leave is restarted empty first.
void load_indices(const Ring& ring, std::uint32_t& read, std::uint32_t& write)
{
    read = load_once(ring.read_index);
    write = load_once(ring.write_index);
    if (read > last_index(ring) || write > last_index(ring)) {
        restart_empty(ring);
        read = 0;
        write = 0;
    }
}

// No record at `read`: when the writer has wrapped (W < read), the tail is cleared and the
// reader follows to 0; otherwise the ring is drained and starts again at 0.
void reader_found_nothing(const Ring& ring, std::uint32_t read, std::uint32_t write)
{
    if (write < read) {
        std::memset(ring.bytes + read, 0, ring.capacity - read);  // read <= capacity
        store_once(ring.read_index, 0);
    } else {
        restart_empty(ring);
    }
}

// The reading step (caller holds the ring's mutex): removes the oldest record and returns it
// (when `keep`; the discard step drops it without building a copy), an empty vector when there
// is none.
std::vector<unsigned char> take_record(const Ring& ring, bool keep)
{
    const std::uint32_t capacity = ring.capacity;
    std::uint32_t read = 0;
    std::uint32_t write = 0;
    load_indices(ring, read, write);  // read <= last_index(ring) from here on

    std::uint32_t length = prefix_at(ring, read);
    if (length == 0) {
        reader_found_nothing(ring, read, write);
        return {};
    }
    const std::uint32_t start = read + LENGTH_PREFIX_SIZE;
    const std::uint32_t end = start + length;
    if (start <= write && write < end) {
        length = write - start;  // never read into the writer's position
    } else if (end > capacity) {
        length = capacity - start;  // never read past the ring's end
    }

    std::vector<unsigned char> record;
    if (keep) {
        record.assign(ring.bytes + start, ring.bytes + start + length);
    }
    std::memset(ring.bytes + read, 0, wire::frame_size(length));  // prefix and record
    read = start + length;

    if (read < capacity - LENGTH_PREFIX_SIZE && prefix_at(ring, read) != 0) {
        store_once(ring.read_index, read);
    } else {
        reader_found_nothing(ring, read, write);
    }
    return record;
}

// Whether a record of `size` bytes can ever be framed in a ring of `capacity` bytes.
bool placeable(std::size_t size, std::uint32_t capacity)
{
    return size != 0 && size <= capacity - LENGTH_PREFIX_SIZE && size <= wire::MAX_FRAMED_RECORD_SIZE;
}

// The writing step: appends one record of `size` bytes (placeable in this ring), discarding
// the oldest records while there is no room, one count in `lost` per discard step.
// The caller holds the ring's mutex (`lock` adopts or took it).
void write_record_held(const Ring& ring, const unsigned char* data, std::uint32_t size,
                       std::atomic<std::uint64_t>& lost, const Mutex_lock_guard& lock)
{
    (void)lock;
    const std::uint32_t capacity = ring.capacity;

    // A correct ring needs at most one discard step per framed record (three bytes or more),
    // plus one to wrap.
    std::uint32_t steps_left = capacity;
    const auto discard = [&] {
        take_record(ring, false);
        lost.fetch_add(1);
        --steps_left;
    };

    std::uint32_t read = 0;
    std::uint32_t write = 0;
    load_indices(ring, read, write);
    if (write + wire::frame_size(size) > capacity) {
        // No room before the end: the record goes to 0. While the reader is still at or
        // ahead of the writer, the records between it and the end are given up first, until
        // the reader has followed to the front (W = 0 here would mean the ring drained).
        if (write <= read) {
            do {
                discard();
                load_indices(ring, read, write);
            } while (read >= write && write != 0 && steps_left != 0);
            if (steps_left == 0) {
                restart_empty(ring);
            }
        }
        store_once(ring.write_index, 0);
    }

    load_indices(ring, read, write);
    const bool free_at_write = read < write || (read == write && prefix_at(ring, write) == 0);
    if (!free_at_write) {
        // The reader is ahead of the writer (or the ring is full): make room up to the
        // oldest unread record. The new record may end exactly where that one begins.
        while (write + wire::frame_size(size) > read) {
            if (steps_left == 0) {
                restart_empty(ring);
                write = 0;
                break;
            }
            discard();
            load_indices(ring, read, write);
            if (read == 0) {
                break;  // the reader followed a wrap or the ring drained: write at W
            }
        }
    }

    if (write + wire::frame_size(size) > capacity) {
        restart_empty(ring);  // only a ring rewritten behind our back gets here
        write = 0;
    }
    wire::store_prefix(ring.bytes + write, size);
    std::memcpy(ring.bytes + write + LENGTH_PREFIX_SIZE, data, size);
    write += wire::frame_size(size);
    if (write > last_index(ring)) {
        write = 0;  // fewer than three bytes left: no record can start there
    }
    store_once(ring.write_index, write);
}

void write_record(const Ring& ring, const unsigned char* data, std::uint32_t size, std::atomic<std::uint64_t>& lost)
{
    const Mutex_lock_guard lock(ring.mutex, false);
    write_record_held(ring, data, size, lost, lock);
}

// Takes a robust mutex within `wait_us` microseconds (a holder that died is taken over); false
// when it stays held that long. The first attempt goes through the system seam; when the lock
// is held, the wait is the kernel's own timed wait, called directly (deliberately, like the
// receiver thread's last sleep; see timed_lock.hpp).
bool lock_within(pthread_mutex_t* mutex, std::uint32_t wait_us)
{
    int result = sys->pthread_mutex_trylock(mutex);
    if (result == EBUSY) {
        result = timed_lock_within(mutex, wait_us);
    }
    return settle_robust_lock(mutex, result) == 0;
}

// Whether the application's end may write its ring: a channel end that is open, of the
// application's side.
bool writable(const Logferry_base& end) { return end.initialized && end.client_side; }

// The application's push with a bounded wait for the ring's mutex, offered to a front end
// built on this library through its hook (below): liblogferry exports no name for it. A
// message that cannot be placed within the wait is dropped and counted as lost.
bool push_client_within(Logferry_base& end, const unsigned char* bytes, std::size_t size, std::uint32_t wait_us)
{
    if (!writable(end) || !placeable(size, CLIENT_BUFFER_SIZE) || !wire::is_ring_kind(bytes[wire::KIND_AT])) {
        // Refused (and reported) exactly as the ordinary push does.
        return end.push(std::vector<unsigned char>(bytes, bytes + size));
    }
    const Ring ring = client_ring(end.segment);
    if (!lock_within(ring.mutex, wait_us)) {
        end.lost_messages.fetch_add(1);
        return false;
    }
    const Mutex_lock_guard lock(ring.mutex, true);
    write_record_held(ring, bytes, static_cast<std::uint32_t>(size), end.lost_messages, lock);
    return true;
}

// Places a record where the writing step would, when that needs no discard step; false (and
// nothing written) when it would need one. The caller holds the ring's mutex and carries the
// indices from one record to the next: the reader cannot move meanwhile, and W is stored once
// after the last record.
bool place_without_discard(const Ring& ring, std::uint32_t read, std::uint32_t& write, const unsigned char* data,
                           std::uint32_t size)
{
    const std::uint32_t frame = wire::frame_size(size);
    std::uint32_t at = write;
    if (at + frame > ring.capacity) {
        if (read >= at || frame > read) {
            return false;  // to 0 only in front of a reader that is behind the writer, far enough
        }
        at = 0;
    } else if (!(read < at || (read == at && prefix_at(ring, at) == 0)) && at + frame > read) {
        return false;  // the reader is ahead (or the ring full): only the gap up to it
    }
    wire::store_prefix(ring.bytes + at, size);
    std::memcpy(ring.bytes + at + LENGTH_PREFIX_SIZE, data, size);
    at += frame;
    write = at > last_index(ring) ? 0 : at;
    return true;
}

// Messages of a batch into the application's ring in one hold of its mutex.
Batch_result push_client_batch(Logferry_base& end, const Ring_batch& batch, bool forced, std::uint32_t wait_us,
                               std::size_t max_bytes)
{
    Batch_result result;
    if (!writable(end)) {
        result.end = Batch_end::kRefused;
        return result;
    }
    const Ring ring = client_ring(end.segment);
    if (!forced && atomic_load_u8(&end.segment->client_buffer_locked) != 0) {
        result.end = Batch_end::kGated;
        return result;
    }
    if (!lock_within(ring.mutex, wait_us)) {
        result.end = Batch_end::kBusy;
        return result;
    }
    const Mutex_lock_guard lock(ring.mutex, true);
    std::uint32_t read = 0;
    std::uint32_t write = 0;
    load_indices(ring, read, write);
    std::size_t written = 0;
    std::size_t size = 0;
    result.end = Batch_end::kDone;
    while (const unsigned char* bytes = batch.next(batch.source, &size)) {
        if (written >= max_bytes) {
            result.end = Batch_end::kBound;
            break;
        }
        if (!placeable(size, CLIENT_BUFFER_SIZE) || !wire::is_ring_kind(bytes[wire::KIND_AT])) {
            result.end = Batch_end::kRefused;
            break;
        }
        const auto record_size = static_cast<std::uint32_t>(size);
        if (forced) {
            store_once(ring.write_index, write);
            write_record_held(ring, bytes, record_size, end.lost_messages, lock);
            load_indices(ring, read, write);
        } else if (!place_without_discard(ring, read, write, bytes, record_size)) {
            result.end = Batch_end::kFull;
            break;
        }
        batch.taken(batch.source);
        ++result.placed;
        written += size;
    }
    store_once(ring.write_index, write);
    return result;
}

// Unread bytes of the application's ring, from one unlocked read of its indices.
std::size_t client_unread_bytes(const Logferry_base& end)
{
    if (!end.initialized) {
        return 0;
    }
    const Ring ring = client_ring(end.segment);
    const std::uint32_t read = load_once(ring.read_index);
    const std::uint32_t write = load_once(ring.write_index);
    if (read > last_index(ring) || write > last_index(ring)) {
        return 0;
    }
    if (read == write) {
        return prefix_at(ring, write) == 0 ? 0 : ring.capacity;
    }
    return read < write ? write - read : ring.capacity - read + write;
}

const Ring_access RING_ACCESS{&push_client_within, &push_client_batch, &client_unread_bytes};

// Offered once, when the library is loaded.
const bool ring_access_offered = [] {
    if (logferry_hook_ring_access != nullptr) {
        logferry_hook_ring_access(&RING_ACCESS);
    }
    return true;
}();

const char* const NOT_INITIALIZED = "shared memory not initialized.";

}  // namespace

const Ring_access& client_ring_access() { return RING_ACCESS; }

bool Logferry_base::push(const std::vector<unsigned char>& bytes)
{
    return client_side ? push_client(bytes) : push_server(bytes);
}

bool Logferry_base::push_client(const std::vector<unsigned char>& bytes)
{
    if (!initialized || !placeable(bytes.size(), CLIENT_BUFFER_SIZE)) {
        return false;
    }
    if (!wire::is_ring_kind(bytes[wire::KIND_AT])) {
        report_error("unknown message type " + std::to_string(static_cast<unsigned int>(bytes[wire::KIND_AT])));
        return false;
    }
    // Discards always come from the ring being written, whichever end writes it.
    write_record(client_ring(segment), bytes.data(), static_cast<std::uint32_t>(bytes.size()), lost_messages);
    return true;
}

bool Logferry_base::push_server(const std::vector<unsigned char>& bytes)
{
    if (!initialized || !placeable(bytes.size(), SERVER_BUFFER_SIZE)) {
        return false;
    }
    write_record(server_ring(segment), bytes.data(), static_cast<std::uint32_t>(bytes.size()), lost_messages);
    return true;
}

std::vector<unsigned char> Logferry_base::pop()
{
    if (!initialized) {
        report_error(NOT_INITIALIZED);
        return {};
    }
    const Ring ring = client_side ? server_ring(segment) : client_ring(segment);
    Mutex_lock_guard lock(ring.mutex, false);
    if (!client_side && atomic_load_u8(&segment->client_buffer_locked) != 0) {
        return {};  // the application's records wait until it opens the gate
    }
    return take_record(ring, true);
}

std::vector<unsigned char> Logferry_base::pop_unsynced(bool own)
{
    if (segment == MAP_FAILED) {
        return {};  // nothing mapped: nothing to read (and nothing to report, as for a held lock)
    }
    const bool client_buffer = own == client_side;
    return take_record(client_buffer ? client_ring(segment) : server_ring(segment), true);
}

bool Logferry_base::is_empty() const
{
    if (!initialized) {
        report_error(NOT_INITIALIZED);
        return true;
    }
    const Ring ring = client_side ? server_ring(segment) : client_ring(segment);
    Mutex_lock_guard lock(ring.mutex, false);
    const std::uint32_t read = load_once(ring.read_index);
    const std::uint32_t write = load_once(ring.write_index);
    if (read > last_index(ring) || write > last_index(ring)) {
        return true;  // a corrupt ring holds nothing readable; the next push or pop restarts it
    }
    return read == write && prefix_at(ring, write) == 0;
}

void Logferry_base::lock_client_buffer()
{
    if (!initialized) {
        report_error(NOT_INITIALIZED);
        return;
    }
    atomic_store_u8(&segment->client_buffer_locked, 1);
}

void Logferry_base::unlock_client_buffer()
{
    if (!initialized) {
        report_error(NOT_INITIALIZED);
        return;
    }
    atomic_store_u8(&segment->client_buffer_locked, 0);
}

bool Logferry_base::is_client_buffer_locked()
{
    if (!initialized) {
        report_error(NOT_INITIALIZED);
        return true;
    }
    return atomic_load_u8(&segment->client_buffer_locked) != 0;
}

}  // namespace logferry

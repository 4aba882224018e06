// Staging of finished messages per thread, and the flusher that hands them to the ring (see
// staging.hpp).
#include "ara_log/staging.hpp"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include "ara_log/stamp_clock.hpp"
#include "logferry/client.hpp"
#include "wire/ring_framing.hpp"
#include "wire/wire.hpp"

namespace ara::log::detail {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// Bytes in front of every staged message: its size.
constexpr std::size_t FRAME_HEAD = 4;
/// Stream keys: each thread numbers its messages from a base of its own.
constexpr std::uint32_t KEYS_PER_THREAD = 0x10000;

// One block of a queue: `capacity` bytes after the header. The producer writes messages
// behind `committed` and publishes them by moving it; once it sets `next`, it never writes
// this block again.
struct Block {
    std::atomic<Block*> next{nullptr};
    std::atomic<std::size_t> committed{0};
    std::size_t capacity = 0;
    unsigned char* data() { return reinterpret_cast<unsigned char*>(this + 1); }
};

}  // namespace

// One thread's queue. The first group is the consumer's (the flusher, or a thread handing its
// own queue over at once, under `consumer`), the second the producer's (the owning thread).
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): each side on cache lines of its own
struct Thread_queue {
    alignas(64) std::mutex consumer;
    Block* head = nullptr;
    std::size_t read_pos = 0;
    std::size_t size_at_read = 0;                  // size of the message `next` gave last
    std::atomic<std::uint64_t> taken_messages{0};  // written by the consumer only

    alignas(64) Block* tail = nullptr;
    std::size_t write_pos = 0;
    std::atomic<std::uint64_t> committed_messages{0};  // written by the producer only
    // A message of this thread is being written in `tail` (set by the producer; cleared by
    // the producer, or by another thread that finished a stream moved to it).
    std::atomic<bool> primary_open{false};
    // The thread has ended; the consumer frees the queue once it is drained.
    std::atomic<bool> closed{false};
    Thread_queue* next = nullptr;  // in the registry, under its mutex
};

namespace {

// The process-wide state of staging. Made once, never freed (it may be reached from static
// destructors and exit handlers).
struct Staging {
    std::atomic<bool> on{false};
    std::size_t limit = TUNING.staging_limit;
    std::atomic<std::size_t> block_bytes{0};
    const logferry::Ring_access* access = nullptr;

    std::mutex registry_mutex;
    Thread_queue* queues = nullptr;

    // The flusher.
    std::thread flusher;
    std::mutex wake_mutex;
    std::condition_variable wake;
    std::atomic<bool> asleep{false};  // sleeping until woken: the next message wakes it
    bool stop = false;                // under wake_mutex
};
Staging& staging()
{
    static auto* const state = new Staging;
    return *state;
}

// What each thread keeps: its queue, its pool of message storage, its stream keys.
// Trivially destructible and constant-initialised, so that reaching it costs no guard; the
// closer below ends the thread's part when the thread ends.
struct Thread_state {
    Thread_queue* queue = nullptr;
    Message* free = nullptr;
    unsigned int pool_count = 0;
    bool armed = false;
    bool closed = false;
    std::uint32_t key_base = 0;
    std::uint32_t key_sequence = 0;
};
thread_local Thread_state thread_state;
std::atomic<std::uint32_t> next_key_base{0};
// The thread that loaded the library (the program's main thread). Its queue is never closed:
// its thread-local objects are destroyed at exit before the static objects and exit handlers
// that may still log, and the take-down hands its queue over after them.
const std::thread::id loading_thread = std::this_thread::get_id();

struct Thread_closer {
    Thread_closer() = default;
    Thread_closer(const Thread_closer&) = delete;
    Thread_closer& operator=(const Thread_closer&) = delete;
    ~Thread_closer()
    {
        Thread_state& own = thread_state;
        own.closed = true;
        while (own.free != nullptr) {
            Message* message = own.free;
            own.free = message->next;
            delete message;
        }
        own.pool_count = 0;
        if (own.queue != nullptr) {
            own.queue->closed.store(true, std::memory_order_release);  // the consumer frees it
            own.queue = nullptr;
        }
    }
};

void arm(Thread_state& own)
{
    if (!own.armed && !own.closed) {
        own.armed = true;
        own.key_base = next_key_base.fetch_add(KEYS_PER_THREAD, std::memory_order_relaxed);
        if (std::this_thread::get_id() != loading_thread) {
            static thread_local Thread_closer closer;
            (void)closer;
        }
    }
}

// A block of `capacity` bytes within the bound; null when the bound or the memory is exhausted.
Block* new_block(std::size_t capacity)
{
    Staging& state = staging();
    const std::size_t bytes = sizeof(Block) + capacity;
    if (state.block_bytes.fetch_add(bytes, std::memory_order_relaxed) + bytes > state.limit) {
        state.block_bytes.fetch_sub(bytes, std::memory_order_relaxed);
        return nullptr;
    }
    void* memory = std::malloc(bytes);  // NOLINT(cppcoreguidelines-no-malloc): a header and raw bytes
    if (memory == nullptr) {
        state.block_bytes.fetch_sub(bytes, std::memory_order_relaxed);
        return nullptr;
    }
    auto* block = new (memory) Block;
    block->capacity = capacity;
    return block;
}

void free_block(Block* block)
{
    const std::size_t bytes = sizeof(Block) + block->capacity;
    block->~Block();
    std::free(block);  // NOLINT(cppcoreguidelines-no-malloc): made by new_block
    staging().block_bytes.fetch_sub(bytes, std::memory_order_relaxed);
}

// The calling thread's queue, made at its first message; null when the thread has ended,
// staging is off or no memory is left.
Thread_queue* own_queue(Thread_state& own)
{
    if (own.queue != nullptr || own.closed || !staging().on.load(std::memory_order_acquire)) {
        return own.queue;
    }
    arm(own);
    if (own.closed) {
        return nullptr;
    }
    auto* queue = new (std::nothrow) Thread_queue;
    if (queue == nullptr) {
        return nullptr;
    }
    Block* first = new_block(TUNING.block_size);
    if (first == nullptr) {
        delete queue;
        return nullptr;
    }
    queue->head = first;
    queue->tail = first;
    Staging& state = staging();
    try {
        std::lock_guard<std::mutex> lock(state.registry_mutex);
        queue->next = state.queues;
        state.queues = queue;
    } catch (...) {
        free_block(first);
        delete queue;
        return nullptr;
    }
    own.queue = queue;
    return queue;
}

// A block for a queue that needs `room` more bytes (at least an ordinary block).
Block* block_for(std::size_t room)
{
    return new_block(std::max(TUNING.block_size, (room + 4095) & ~std::size_t{4095}));
}

// Finishes the queue's last block and continues in `block`. From here on the consumer may
// free the old block once it has read it: nothing of it may be read afterwards.
void continue_in(Thread_queue& queue, Block* block)
{
    queue.tail->next.store(block, std::memory_order_release);
    queue.tail = block;
    queue.write_pos = 0;
}

// The same with a new block of at least `room` bytes; false when there is no memory for it.
bool next_block(Thread_queue& queue, std::size_t room)
{
    Block* block = block_for(room);
    if (block == nullptr) {
        return false;
    }
    continue_in(queue, block);
    return true;
}

void store_size(unsigned char* at, std::size_t size)
{
    const auto value = static_cast<std::uint32_t>(size);
    std::memcpy(at, &value, sizeof value);
}

std::size_t load_size(const unsigned char* at)
{
    std::uint32_t value = 0;
    std::memcpy(&value, at, sizeof value);
    return value;
}

// Makes the queue's new messages visible to the consumer.
void publish(Thread_queue& queue, std::uint64_t messages)
{
    queue.committed_messages.store(queue.committed_messages.load(std::memory_order_relaxed) + messages,
                                   std::memory_order_relaxed);
    queue.tail->committed.store(queue.write_pos, std::memory_order_release);
}

void wake_flusher()
{
    Staging& state = staging();
    if (state.asleep.load(std::memory_order_relaxed) && state.asleep.exchange(false)) {
        {
            std::lock_guard<std::mutex> lock(state.wake_mutex);
        }
        state.wake.notify_one();
    }
}

// Copies a complete message into the calling thread's queue, behind what it holds.
bool append(Thread_queue& queue, const unsigned char* bytes, std::size_t size)
{
    const std::size_t frame = FRAME_HEAD + size;
    if (queue.tail->capacity - queue.write_pos < frame && !next_block(queue, frame)) {
        return false;
    }
    unsigned char* at = queue.tail->data() + queue.write_pos;
    store_size(at, size);
    std::memcpy(at + FRAME_HEAD, bytes, size);
    queue.write_pos += frame;
    publish(queue, 1);
    return true;
}

// The consumer's view of a queue as a source of messages for the ring.
const unsigned char* next_staged(void* source, std::size_t* size)
{
    auto& queue = *static_cast<Thread_queue*>(source);
    for (;;) {
        Block* block = queue.head;
        std::size_t committed = block->committed.load(std::memory_order_acquire);
        if (queue.read_pos < committed) {
            unsigned char* at = block->data() + queue.read_pos;
            queue.size_at_read = load_size(at);
            *size = queue.size_at_read;
            return at + FRAME_HEAD;
        }
        Block* next = block->next.load(std::memory_order_acquire);
        if (next == nullptr) {
            return nullptr;
        }
        committed = block->committed.load(std::memory_order_acquire);
        if (queue.read_pos < committed) {
            continue;  // committed before the block was finished
        }
        queue.head = next;
        queue.read_pos = 0;
        free_block(block);
    }
}

void taken_staged(void* source)
{
    auto& queue = *static_cast<Thread_queue*>(source);
    queue.read_pos += FRAME_HEAD + queue.size_at_read;
    queue.taken_messages.store(queue.taken_messages.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

std::size_t waiting_in(const Thread_queue& queue)
{
    return static_cast<std::size_t>(queue.committed_messages.load(std::memory_order_relaxed) -
                                    queue.taken_messages.load(std::memory_order_relaxed));
}

// Hands the queue's messages to the ring (caller holds its consumer mutex) until it is empty
// or the ring takes no more; `forced` as for Ring_access::push_batch.
logferry::Batch_result hand_over(Thread_queue& queue, bool forced, std::uint32_t wait_us, std::size_t max_bytes)
{
    const logferry::Ring_batch batch{&next_staged, &taken_staged, &queue};
    logferry::Batch_result result = staging().access->push_batch(logferry::client, batch, forced, wait_us, max_bytes);
    if (result.end == logferry::Batch_end::kRefused && logferry::client.is_initialized()) {
        // A message no ring can take (never made by this front end): dropped, so that the
        // queue does not stick.
        std::size_t size = 0;
        if (next_staged(&queue, &size) != nullptr) {
            taken_staged(&queue);
            count_lost(1);
        }
    }
    return result;
}

// A thread's own queue, this message included, into the ring at once (fatal messages).
void hand_over_own(Thread_queue& queue)
{
    try {
        std::lock_guard<std::mutex> lock(queue.consumer);
        logferry::Batch_result result;
        do {
            result = hand_over(queue, true, TUNING.urgent_wait_us, static_cast<std::size_t>(-1));
        } while (result.end == logferry::Batch_end::kBound);
    } catch (...) {  // NOLINT(bugprone-empty-catch): the mutex failed: the flusher hands it over
    }
}

// Every queue of the registry (a snapshot; queues are only removed by the flusher).
void snapshot(std::vector<Thread_queue*>& queues)
{
    queues.clear();
    Staging& state = staging();
    std::lock_guard<std::mutex> lock(state.registry_mutex);
    for (Thread_queue* queue = state.queues; queue != nullptr; queue = queue->next) {
        queues.push_back(queue);
    }
}

// Frees a queue whose thread has ended and whose messages are all handed over; whether it did.
bool remove_if_done(Thread_queue* queue)
{
    if (!queue->closed.load(std::memory_order_acquire) || queue->primary_open.load(std::memory_order_acquire) ||
        waiting_in(*queue) != 0) {
        return false;
    }
    Staging& state = staging();
    {
        std::lock_guard<std::mutex> lock(state.registry_mutex);
        for (Thread_queue** link = &state.queues; *link != nullptr; link = &(*link)->next) {
            if (*link == queue) {
                *link = queue->next;
                break;
            }
        }
    }
    Block* block = queue->head;
    while (block != nullptr) {
        Block* next = block->next.load(std::memory_order_acquire);
        free_block(block);
        block = next;
    }
    delete queue;
    return true;
}

// One pass over every queue.
struct Pass {
    std::size_t moved = 0;
    bool blocked = false;  // messages wait for the gate, room in the ring or its mutex
};

// `queues` is left holding the queues that are still there.
Pass flush_pass(std::vector<Thread_queue*>& queues, bool forced)
{
    Pass pass;
    snapshot(queues);
    for (Thread_queue*& queue : queues) {
        if (!pass.blocked && waiting_in(*queue) != 0) {
            std::unique_lock<std::mutex> lock(queue->consumer, std::try_to_lock);
            if (!lock.owns_lock()) {
                continue;  // a thread hands its own queue over at this moment
            }
            const logferry::Batch_result result =
                hand_over(*queue, forced, TUNING.flush_wait_us, TUNING.bytes_per_hold);
            pass.moved += result.placed;
            pass.blocked = result.end != logferry::Batch_end::kDone && result.end != logferry::Batch_end::kBound;
        }
        if (remove_if_done(queue)) {
            queue = nullptr;
        }
    }
    queues.erase(std::remove(queues.begin(), queues.end(), nullptr), queues.end());
    return pass;
}

bool any_waiting(const std::vector<Thread_queue*>& queues)
{
    return std::any_of(queues.begin(), queues.end(), [](const Thread_queue* queue) { return waiting_in(*queue) != 0; });
}

// The flusher's sleep: `period`, or until woken or stopped; false once stopped.
bool sleep_for(milliseconds period, bool until_woken)
{
    Staging& state = staging();
    std::unique_lock<std::mutex> lock(state.wake_mutex);
    if (state.stop) {
        return false;
    }
    if (until_woken) {
        state.asleep.store(true);
    }
    state.wake.wait_for(lock, period, [&] { return state.stop || (until_woken && !state.asleep.load()); });
    state.asleep.store(false);
    return !state.stop;
}

void flusher_main()
{
    // Named for whoever looks at the process's threads (top -H, ps -L).
    ::pthread_setname_np(::pthread_self(), "logferry-flush");
    std::vector<Thread_queue*> queues;
    Clock::time_point blocked_since{};
    Clock::time_point last_message = Clock::now();
    bool was_blocked = false;
    for (;;) {
        stamp_clock_recheck();
        Pass pass;
        try {
            pass = flush_pass(queues, false);
        } catch (...) {  // NOLINT(bugprone-empty-catch): no memory for the snapshot: next pass
        }
        const Clock::time_point now = Clock::now();
        if (pass.moved != 0) {
            last_message = now;
        }
        if (pass.blocked) {
            if (!was_blocked) {
                blocked_since = now;
            }
            was_blocked = true;
            if (!sleep_for(
                    now - blocked_since < TUNING.slow_retry_after ? TUNING.retry_period : TUNING.slow_retry_period,
                    false)) {
                return;
            }
            continue;
        }
        was_blocked = false;
        if (pass.moved != 0 || any_waiting(queues)) {
            continue;  // more came meanwhile
        }
        const bool quiet = now - last_message >= TUNING.quiet_spell;
        if (!sleep_for(quiet ? TUNING.idle_period : TUNING.active_period, quiet)) {
            return;
        }
    }
}

}  // namespace

bool start_staging(std::size_t limit) noexcept
{
    Staging& state = staging();
    state.access = ring_access();
    if (state.access == nullptr || limit == 0) {
        return false;
    }
    state.limit = limit;
    try {
        state.flusher = std::thread(flusher_main);
    } catch (...) {
        return false;
    }
    state.on.store(true, std::memory_order_release);
    return true;
}

bool staging_on() noexcept { return staging().on.load(std::memory_order_acquire); }

Message* take_message() noexcept
{
    Thread_state& own = thread_state;
    arm(own);
    Message* message = own.free;
    if (message != nullptr) {
        own.free = message->next;
        --own.pool_count;
    } else {
        message = new (std::nothrow) Message;
        if (message == nullptr) {
            return nullptr;
        }
    }
    message->used = 0;
    message->dropped = 0;
    message->lost = false;
    message->key = own.key_base + (own.key_sequence++ % KEYS_PER_THREAD);
    Thread_queue* queue = own_queue(own);
    if (queue != nullptr && !queue->primary_open.load(std::memory_order_acquire) &&
        (queue->tail->capacity - queue->write_pos >= FRAME_HEAD + TUNING.min_room ||
         next_block(*queue, TUNING.block_size))) {
        queue->primary_open.store(true, std::memory_order_relaxed);
        message->queue = queue;
        message->data = queue->tail->data() + queue->write_pos + FRAME_HEAD;
        message->capacity = std::min<std::size_t>(queue->tail->capacity - queue->write_pos - FRAME_HEAD,
                                                  logferry::wire::MAX_FRAMED_RECORD_SIZE);
        return message;
    }
    message->queue = nullptr;
    if (message->storage.size() < TUNING.initial_capacity) {
        try {
            message->storage.resize(TUNING.initial_capacity);
        } catch (...) {
            delete message;
            return nullptr;
        }
    }
    message->data = message->storage.data();
    message->capacity = message->storage.size();
    return message;
}

void give_back(Message* message) noexcept
{
    Thread_state& own = thread_state;
    if (own.closed || own.pool_count >= TUNING.pool_size || message->storage.size() > TUNING.keep_capacity) {
        delete message;
        return;
    }
    message->queue = nullptr;
    message->next = own.free;
    own.free = message;
    ++own.pool_count;
}

namespace {

// A message of another thread's queue (its stream was moved here) becomes a message of its
// own storage, and the other thread may reuse the place; false (the message is lost) when
// there is no memory for the copy.
void lose(Message& message)
{
    message.lost = true;
    message.capacity = 0;
}

bool take_out_of_other_queue(Message& message)
{
    bool copied = true;
    try {
        message.storage.assign(message.data, message.data + message.used);
    } catch (...) {
        copied = false;
    }
    message.queue->primary_open.store(false, std::memory_order_release);
    message.queue = nullptr;
    if (!copied) {
        lose(message);
        return false;
    }
    message.data = message.storage.data();
    message.capacity = message.storage.size();
    return true;
}

}  // namespace

bool grow(Message& message, std::size_t needed) noexcept
{
    if (message.lost) {
        return false;
    }
    Thread_queue* const own = thread_state.queue;
    if (message.queue != nullptr && message.queue != own && !take_out_of_other_queue(message)) {
        return false;
    }
    if (message.queue == nullptr) {
        try {
            message.storage.resize(std::max(needed, 2 * message.storage.size()));
        } catch (...) {
            lose(message);
            return false;
        }
        message.data = message.storage.data();
        message.capacity = message.storage.size();
        return true;
    }
    // In this thread's queue: on to a new block, with what was written so far (copied before
    // the old block is finished, after which the consumer may free it).
    Thread_queue& queue = *message.queue;
    Block* block = block_for(FRAME_HEAD + needed);
    if (block == nullptr) {
        lose(message);
        return false;
    }
    std::memcpy(block->data() + FRAME_HEAD, message.data, message.used);
    continue_in(queue, block);
    message.data = queue.tail->data() + FRAME_HEAD;
    message.capacity = std::min<std::size_t>(queue.tail->capacity - FRAME_HEAD, logferry::wire::MAX_FRAMED_RECORD_SIZE);
    return true;
}

void stage(Message& message, bool urgent) noexcept
{
    Thread_state& own = thread_state;
    Thread_queue* const queue = own.queue;
    if (message.lost) {
        count_lost(1);
        if (message.queue != nullptr && message.queue == queue) {
            queue->primary_open.store(false, std::memory_order_relaxed);
        }
        return;
    }
    if (!ensure_registered()) {
        if (message.queue != nullptr && message.queue == queue) {
            queue->primary_open.store(false, std::memory_order_relaxed);
        }
        return;
    }
    if (message.queue != nullptr && message.queue == queue) {
        // The thread's message in its own queue: its size in front, then publish it.
        store_size(message.data - FRAME_HEAD, message.used);
        queue->write_pos += FRAME_HEAD + message.used;
        publish(*queue, 1);
        queue->primary_open.store(false, std::memory_order_relaxed);
    } else {
        if (message.queue != nullptr && !take_out_of_other_queue(message)) {
            count_lost(1);
            return;
        }
        if (queue == nullptr || queue->primary_open.load(std::memory_order_acquire)) {
            // No queue (the thread has ended, or staging is off), or a message finished
            // inside another one of this thread: straight to the ring, behind what the
            // thread staged before.
            if (queue != nullptr) {
                hand_over_own(*queue);
            }
            deliver(message.data, message.used);
            return;
        }
        if (!append(*queue, message.data, message.used)) {
            count_lost(1);
            return;
        }
    }
    if (urgent) {
        hand_over_own(*queue);
        return;
    }
    wake_flusher();
}

std::size_t staged_messages() noexcept
{
    Staging& state = staging();
    std::size_t waiting = 0;
    try {
        std::lock_guard<std::mutex> lock(state.registry_mutex);
        for (const Thread_queue* queue = state.queues; queue != nullptr; queue = queue->next) {
            waiting += waiting_in(*queue);
        }
    } catch (...) {  // NOLINT(bugprone-empty-catch): the mutex failed: nothing counted
    }
    return waiting;
}

std::size_t staged_block_bytes() noexcept { return staging().block_bytes.load(std::memory_order_relaxed); }

bool wait_until_handed_over(unsigned int wait_ms) noexcept
{
    const Clock::time_point deadline = Clock::now() + milliseconds(wait_ms);
    for (;;) {
        if (staged_messages() == 0) {
            return true;
        }
        if (Clock::now() >= deadline) {
            return false;
        }
        Staging& state = staging();
        state.asleep.store(false);
        state.wake.notify_one();
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

void stop_flusher() noexcept
{
    Staging& state = staging();
    try {
        {
            std::lock_guard<std::mutex> lock(state.wake_mutex);
            state.stop = true;
        }
        state.wake.notify_all();
        if (state.flusher.joinable()) {
            state.flusher.join();
        }
    } catch (...) {  // NOLINT(bugprone-empty-catch): the flusher is left to the process's end
    }
}

std::size_t hand_over_pass() noexcept
{
    std::vector<Thread_queue*> queues;
    try {
        return flush_pass(queues, false).moved;
    } catch (...) {
        return 0;  // no memory for the snapshot
    }
}

void force_rest() noexcept
{
    std::vector<Thread_queue*> queues;
    try {
        for (int pass = 0; pass < 1000; ++pass) {
            const Pass done = flush_pass(queues, true);
            if (!any_waiting(queues) || (done.moved == 0 && done.blocked)) {
                break;
            }
        }
    } catch (...) {  // NOLINT(bugprone-empty-catch): no memory for the snapshot: left staged
    }
    const std::size_t left = staged_messages();
    if (left != 0) {
        count_lost(left);
    }
}

void forget_staging_after_fork() noexcept
{
    Staging& state = staging();
    state.on.store(false);
    if (state.flusher.joinable()) {
        state.flusher.detach();  // the parent's thread: the child has none
    }
    thread_state.queue = nullptr;
    thread_state.closed = true;
}

}  // namespace ara::log::detail

// The library-wide state of the front end.
//
// Everything is defined in this one file so that the construction order is fixed: the
// objects below are built in the order written when the library is loaded and destroyed
// in reverse order when it is unloaded. The mutexes and flags have constant initialisers
// and are usable before any constructor runs.
#include "logferry/client.hpp"

namespace logferry {

// Constant-initialised: no constructor runs for these.
std::mutex application_mutex;
std::mutex contexts_mutex;
std::mutex filters_mutex;
std::mutex priority_message_queue_mutex;
std::mutex incomplete_logstream_messages_mutex;

std::atomic<bool> init_called{false};
std::atomic<bool> first_registration{true};
std::atomic<bool> pending_registration{false};
std::atomic<bool> terminate_receiver_thread{false};

// Built in this order at load time.
std::thread message_receiver_thread;
std::vector<Logferry_register_app> registered_application;
std::unordered_map<std::uint32_t, Logferry_register_context> registered_contexts;
std::unordered_map<std::uint32_t, std::uint8_t> log_level_filters;
// The lock-file path is taken from the run-state directory now, once.
Logferry_listener listener(false);
Logferry_client client;
std::queue<std::vector<unsigned char>> priority_message_queue;
std::unordered_map<std::uint32_t, std::vector<unsigned char>> incomplete_logstream_messages;

}  // namespace logferry

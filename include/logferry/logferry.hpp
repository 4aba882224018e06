#ifndef LOGFERRY_LOGFERRY_HPP
#define LOGFERRY_LOGFERRY_HPP

// The whole public surface of liblogferry.

/// \namespace logferry
/// The library's whole public surface: the application's front end (free functions and the
/// library-wide state in client.hpp), the message records and their encoding (message.hpp),
/// the validators (validation.hpp), both ends of the shared-memory channel (channel.hpp),
/// the daemon's listener list (listener.hpp) and the operating-system seam (system.hpp).
#include "logferry/channel.hpp"
#include "logferry/client.hpp"
#include "logferry/export.hpp"
#include "logferry/listener.hpp"
#include "logferry/message.hpp"
#include "logferry/system.hpp"
#include "logferry/validation.hpp"

#endif

#ifndef LOGFERRY_LOGFERRY_HPP
#define LOGFERRY_LOGFERRY_HPP

// The whole public surface of liblogferry.
#include "logferry/channel.hpp"
#include "logferry/client.hpp"
#include "logferry/export.hpp"
#include "logferry/listener.hpp"
#include "logferry/message.hpp"
#include "logferry/system.hpp"
#include "logferry/validation.hpp"

#endif

// Control messages between DLT clients and the daemon side: parsing of the requests a client
// sends, building of the responses and of the keep-alive. Layouts in dlt_layout.hpp.

#ifndef LOGFERRY_TOOLS_DLT_CONTROL_HPP
#define LOGFERRY_TOOLS_DLT_CONTROL_HPP

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace logferry_dlt {

enum class Service : std::uint32_t {
    set_log_level = 0x01,
    set_trace_status = 0x02,
    get_log_info = 0x03,
    get_default_log_level = 0x04,
    store_config = 0x05,
    reset_to_factory_default = 0x06,
    set_message_filtering = 0x0A,
    set_default_log_level = 0x11,
    set_default_trace_status = 0x12,
    get_software_version = 0x13,
    message_buffer_overflow = 0x14
};

struct Control_request {
    bool valid = false;  // a complete, well-formed control request message
    std::uint32_t service_id = 0;
    char ecu[4] = {};
    char app[4] = {};
    char context[4] = {};      // set_log_level / get_log_info target
    std::int8_t level = 0;     // set_log_level / set_default_log_level (-1 default .. 6 verbose)
    std::uint8_t options = 0;  // get_log_info
    bool garbage = false;      // the bytes are not a DLT message at all (the client should be dropped)
    bool is_request = false;   // a control request whose service ID was read (answer an invalid one with an error)
    std::size_t consumed = 0;  // bytes of the input this message took (0: need more bytes)
};

// Parses the first message in `data` (a DLT message as a client sends it on TCP). `consumed`
// tells the caller how far to advance. With `valid=false` and consumed>0 the message was
// either garbage (`garbage`: no DLT message; consumed is then all of `size`), a control
// request with bad parameters (`is_request`, `service_id` set) or a well-formed message
// that is not a control request (nothing to do for it), or a serial header ("DLS" 0x01)
// before the next message. Payload numbers are read in the
// byte order the header's MSBF bit announces.
Control_request parse_control(const unsigned char* data, std::size_t size) noexcept;

struct Context_info {
    char id[4];
    std::int8_t level;
    std::string description;
};
struct App_info {
    char id[4];
    std::string description;
    std::vector<Context_info> contexts;
};

constexpr std::uint8_t STATUS_OK = 0;
constexpr std::uint8_t STATUS_NOT_SUPPORTED = 1;
constexpr std::uint8_t STATUS_ERROR = 2;

// Response builders return a whole DLT control response message (standard + extended header).
std::vector<unsigned char> control_response(const char ecu[4], std::uint32_t service_id,
                                            std::uint8_t status);  // 0 ok, 1 not supported, 2 error
std::vector<unsigned char> get_log_info_response(const char ecu[4], const std::vector<App_info>& apps);
std::vector<unsigned char> default_log_level_response(const char ecu[4], std::int8_t level);
std::vector<unsigned char> software_version_response(const char ecu[4], const std::string& version);
std::vector<unsigned char> keep_alive_message(const char ecu[4]);  // the control time message sent every second

}  // namespace logferry_dlt

#endif

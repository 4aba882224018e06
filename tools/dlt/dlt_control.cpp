#include "dlt_control.hpp"

namespace logferry_dlt {

Control_request parse_control(const unsigned char*, std::size_t) noexcept { return {}; }
std::vector<unsigned char> control_response(const char*, std::uint32_t, std::uint8_t) { return {}; }
std::vector<unsigned char> get_log_info_response(const char*, const std::vector<App_info>&) { return {}; }
std::vector<unsigned char> default_log_level_response(const char*, std::int8_t) { return {}; }
std::vector<unsigned char> software_version_response(const char*, const std::string&) { return {}; }
std::vector<unsigned char> keep_alive_message(const char*) { return {}; }

}  // namespace logferry_dlt

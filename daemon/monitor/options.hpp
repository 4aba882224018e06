// logferry-monitor's options: one field for each option of the command line, with its
// default and the reason for that default beside it. main fills them in; the monitor hands
// the collector and the outputs what each of them needs.

#ifndef LOGFERRY_TOOLS_MONITOR_OPTIONS_HPP
#define LOGFERRY_TOOLS_MONITOR_OPTIONS_HPP

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "tuning.hpp"

namespace logferry_monitor {

/// The ECU ID when none is given.
constexpr const char* DEFAULT_ECU = "LFER";

struct Options {
    // --level CTX=LEVEL, repeatable: the level sent to every context registered with the ID CTX.
    // None by default: every context keeps the level its application registered it with.
    std::vector<std::pair<std::string, std::uint8_t>> levels;
    // --say TEXT, repeatable: none by default, the monitor listens and speaks only when asked.
    std::vector<std::string> texts;
    // --count N: 0, no limit; like any log daemon the monitor serves until it is stopped.
    std::uint64_t max_messages = 0;
    // --duration S: 0, no limit, for the same reason.
    double max_seconds = 0.0;
    // --quiet: off; the text lines are what the monitor is run for on a developer's PC.
    bool quiet = false;
    // --dlt-file PATH: none; a storage file grows without bound, so it is written only when asked.
    std::string dlt_file;
    // --dlt-file-limit BYTES: 0, no rotation; rotating drops the oldest messages, so only when asked.
    std::uint64_t dlt_file_limit = 0;
    // Whether --dlt-port was given: no port by default, since 3490 may belong to a DLT daemon.
    bool dlt_tcp = false;
    // --dlt-port PORT: 0 picks a free port (and the monitor prints it); used only with dlt_tcp.
    std::uint16_t dlt_port = 0;
    // --dlt-bind ADDR: the loopback; the port is reachable from other hosts only when asked.
    std::string dlt_bind = "127.0.0.1";
    // --dlt-max-clients N: 64, more than the viewers and tools of a setup (see tuning.hpp).
    std::size_t dlt_max_clients = logferry_tuning::DEFAULT_MAX_CLIENTS;
    // --ecu ID: "LFER", one logferry ECU; a gateway over several monitors tells them apart by it.
    std::string ecu = DEFAULT_ECU;
    // --app-file-dir DIR: none; without a directory of its own no application chooses a file to write.
    std::string app_file_dir;
    // Not an option: the answer to DLT clients' get-software-version, set by main.
    std::string version;
};

}  // namespace logferry_monitor

#endif  // LOGFERRY_TOOLS_MONITOR_OPTIONS_HPP

// Requests to the daemon about how to treat this application's output. Each travels on the
// priority path like a registration, so it arrives ahead of ordinary traffic and in call
// order.
#include <string>

#include "logferry/client.hpp"

namespace logferry {

bool enable_local_print()
{
    std::vector<unsigned char> bytes;
    serialize(Logferry_enable_local_print{}, bytes);
    submit_priority_record(bytes);
    return true;
}

void disable_remote()
{
    std::vector<unsigned char> bytes;
    serialize(Logferry_disable_remote{}, bytes);
    submit_priority_record(bytes);
}

bool init_file(const char* name)
{
    if (name == nullptr) {
        return false;
    }
    const std::string validated = dlt_validate_string(std::string(name), RECORD_FILE_NAME_SIZE);
    Logferry_init_file record{};
    copy_bounded_text(record.file_name, validated.c_str(), RECORD_FILE_NAME_SIZE - 1);
    std::vector<unsigned char> bytes;
    serialize(record, bytes);
    submit_priority_record(bytes);
    return true;
}

}  // namespace logferry

// Fuzz harness: `deserialize`, the reader of the level-filter update that the daemon sends.
//
// Input: one byte that chooses the count passed as `size` (the vector's own length, or any
// smaller count), four bytes of the handle that `out` holds beforehand, then the received
// bytes (at least 2, as the caller guarantees). Checked: the level byte is always stored; a
// level above 6 or a count below 6 yields false and leaves the handle as it was; otherwise
// the result is true and the handle is bytes 2 to 5, little-endian. Byte 0 is not looked at
// and the kind of `out` never changes.
#include <cstdint>
#include <string>
#include <vector>

#include "harness_support.hpp"
#include "logferry/message.hpp"
#include "wire/wire.hpp"

namespace {

const char* const HARNESS = "fuzz_deserialize";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    logferry_fuzz::Reader in(data, size);
    const std::uint8_t size_choice = in.u8();
    const std::uint32_t handle_before = in.u32();
    const std::string rest = in.bytes(in.left());
    if (rest.size() < 2) {
        return 0;  // outside the contract: the caller passes at least two bytes
    }
    const std::vector<unsigned char> bytes(rest.begin(), rest.end());
    const unsigned long count = (size_choice & 1) == 0 ? bytes.size() : (size_choice >> 1) % (bytes.size() + 1);

    logferry::Logferry_update_context_log_level_filter out;
    out.context_handle = handle_before;
    const bool result = logferry::deserialize(bytes, count, out);

    namespace wire = logferry::wire;
    const std::uint8_t level = bytes[wire::level_update::LEVEL_AT];
    const bool expected = level <= wire::MAX_LOG_LEVEL && count >= wire::LEVEL_UPDATE_SIZE;
    const std::uint32_t expected_handle =
        expected ? wire::get_u32(bytes.data() + wire::level_update::HANDLE_AT) : handle_before;
    if (result != expected || out.log_level != level || out.context_handle != expected_handle ||
        out.kind != logferry::KIND_UPDATE_CONTEXT_LOG_LEVEL_FILTER) {
        logferry_fuzz::violation(HARNESS, "deserialize of " + std::to_string(bytes.size()) + " bytes with size " +
                                              std::to_string(count) + " gave " + (result ? "true" : "false") +
                                              ", level " + std::to_string(out.log_level) + ", handle " +
                                              std::to_string(out.context_handle));
    }
    return 0;
}

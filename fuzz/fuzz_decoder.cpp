// Fuzz harness: the daemon-side record decoder (src/wire/decoder.cpp) on arbitrary bytes, as one
// record, as a read of the priority area and as one unit of the application's ring.
//
// Checked besides memory safety: a successful decode accounts for its input exactly
// (records start where the previous one ended, from offset 0, and the last one ends at the
// input's end; a single record stays within its input), records carry only kinds their place
// admits (priority kinds in the priority area; a log message ends with its finish record and
// all its records belong to the finish record's stream), no field holds more bytes than its
// record, a failed decode reports an error at an offset within the input and returns no
// records for a ring unit, and every error can be described. The in-place reading of a log
// message (message_view.hpp) agrees with the ring-unit decode on what the unit is and on the
// number of its arguments, whose texts and payloads stay inside the input or the decoder's copy.
#include <cstdint>
#include <string>
#include <vector>

#include "decoder.hpp"
#include "harness_support.hpp"
#include "logferry/message.hpp"
#include "message_view.hpp"
#include "wire/wire.hpp"

namespace {

const char* const HARNESS = "fuzz_decoder";

using logferry_decoder::Error;
using logferry_decoder::Record;

void expect(bool condition, const std::string& what) { logferry_fuzz::expect(HARNESS, condition, what); }

void check_error(const Error& error, std::size_t size, const char* where)
{
    expect(!error.ok(), std::string(where) + ": failure without an error");
    expect(error.offset <= size, std::string(where) + ": error offset " + std::to_string(error.offset) +
                                     " beyond the input of " + std::to_string(size) + " bytes");
    const std::string text = logferry_decoder::describe(error);
    expect(text.rfind(logferry_decoder::error_name(error.code), 0) == 0, std::string(where) + ": description " + text);
}

void check_record(const Record& record, const std::uint8_t* data, std::size_t size, const char* where)
{
    expect(record.size >= 1 && record.offset + record.size <= size,
           std::string(where) + ": record at " + std::to_string(record.offset) + " of " + std::to_string(record.size) +
               " bytes outside the input of " + std::to_string(size));
    expect(record.kind == data[record.offset], std::string(where) + ": kind " + std::to_string(record.kind) +
                                                   " differs from the byte at " + std::to_string(record.offset));
    expect(record.kind <= logferry::wire::MAX_KIND, std::string(where) + ": kind " + std::to_string(record.kind));
    expect(record.payload.size() <= record.size && record.id.size() <= record.size && record.text.size() <= record.size,
           std::string(where) + ": a field is longer than its record");
}

// Records that start at 0, follow each other without gaps and end at `size`.
void check_contiguous(const std::vector<Record>& records, const std::uint8_t* data, std::size_t size, bool whole,
                      const char* where)
{
    std::size_t at = 0;
    for (const Record& record : records) {
        expect(record.offset == at, std::string(where) + ": record at " + std::to_string(record.offset) +
                                        ", expected at " + std::to_string(at));
        check_record(record, data, size, where);
        at += record.size;
    }
    if (whole) {
        expect(at == size,
               std::string(where) + ": records end at " + std::to_string(at) + " of " + std::to_string(size));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const auto single = logferry_decoder::decode_record(data, size);
    if (single.error.ok()) {
        expect(single.record.offset == 0, "decode_record: record not at 0");
        check_record(single.record, data, size, "decode_record");
    } else {
        check_error(single.error, size, "decode_record");
    }

    const auto priority = logferry_decoder::decode_priority_area(data, size);
    check_contiguous(priority.records, data, size, priority.error.ok(), "decode_priority_area");
    for (const Record& record : priority.records) {
        expect(logferry::is_priority_kind(record.kind),
               "decode_priority_area: kind " + std::to_string(record.kind) + " in the priority area");
    }
    if (!priority.error.ok()) {
        check_error(priority.error, size, "decode_priority_area");
    } else {
        expect(size > 0, "decode_priority_area: empty input accepted");
    }

    const auto unit = logferry_decoder::decode_ring_unit(data, size);
    if (unit.error.ok()) {
        expect(unit.shape != logferry_decoder::Unit_shape::invalid && !unit.records.empty(),
               "decode_ring_unit: success without records");
        check_contiguous(unit.records, data, size, true, "decode_ring_unit");
        if (unit.shape == logferry_decoder::Unit_shape::single_record) {
            expect(unit.records.size() == 1, "decode_ring_unit: single record shape with several records");
            expect(unit.start() == nullptr && unit.finish() == nullptr, "decode_ring_unit: single record with a start");
        } else {
            const Record* finish = unit.finish();
            expect(finish != nullptr && finish->kind == logferry::KIND_WRITE_FINISH,
                   "decode_ring_unit: log message without its finish record last");
            for (const Record& record : unit.records) {
                expect(logferry::wire::is_message_kind(record.kind),
                       "decode_ring_unit: kind " + std::to_string(record.kind) + " inside a log message");
                expect(record.stream_key == finish->stream_key,
                       "decode_ring_unit: record of stream " + std::to_string(record.stream_key) +
                           " in the message of stream " + std::to_string(finish->stream_key));
            }
        }
    } else {
        expect(unit.shape == logferry_decoder::Unit_shape::invalid && unit.records.empty(),
               "decode_ring_unit: failure with records");
        check_error(unit.error, size, "decode_ring_unit");
    }

    static logferry_decoder::Message_view view;
    const bool message = view.read(data, size);
    expect(message == (unit.shape == logferry_decoder::Unit_shape::log_message),
           "Message_view: disagrees with decode_ring_unit on whether this is a log message");
    if (message) {
        std::size_t arguments = 0;
        for (const Record& record : unit.records) {
            arguments += logferry_decoder::is_argument_kind(record.kind) ? 1 : 0;
        }
        expect(view.arg_count == arguments, "Message_view: " + std::to_string(view.arg_count) + " arguments, " +
                                                std::to_string(arguments) + " argument records");
        for (std::size_t i = 0; i < view.arg_count; ++i) {
            const auto& arg = view.args[i];
            expect(arg.size <= size, "Message_view: an argument larger than its unit");
            if (arg.size != 0) {
                volatile unsigned char last = arg.data[arg.size - 1];  // within a live buffer (ASan checks)
                static_cast<void>(last);
            }
        }
    }
    return 0;
}

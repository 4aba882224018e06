// The byte layouts of DLT version 1 as this project writes and reads them, drawn once here;
// every other file of daemon/dlt/ uses the constants below. Offsets in bytes.
//
// Storage header (files only, before each message; 16 bytes):
//
//    0   1   2   3   4               8               12              16
//   +---+---+---+---+---------------+---------------+---------------+
//   |'D'|'L'|'T'|0x1| seconds  LE32 | micros   LE32 | ECU ID        |
//   +---+---+---+---+---------------+---------------+---------------+
//
// Serial header (optional, before a message from some clients): "DLS" 0x01; skipped.
//
// Standard header (always; 4 bytes, then the optional fields in this order; BIG-endian):
//
//    0      1      2       4          8            12           16
//   +------+------+-------+----------+------------+------------+
//   | HTYP | MCNT | LEN   | ECU ID   | session ID | timestamp  |
//   |      |      | BE16  | (WEID)   | BE32 (WSID)| BE32 (WTMS)|
//   +------+------+-------+----------+------------+------------+
//   HTYP bits: 0 UEH (extended header follows), 1 MSBF (payload big-endian), 2 WEID,
//              3 WSID, 4 WTMS, 5-7 version (1). LEN counts the whole message from HTYP
//              to the end of the payload (no storage header). MCNT: per-context counter.
//   We always write HTYP = UEH | WEID | WSID | WTMS | version 1 = 0x3D (payload LE).
//
// Extended header (10 bytes, directly after the standard header):
//
//    0      1      2          6          10
//   +------+------+----------+----------+
//   | MSIN | NOAR | app ID   | ctx ID   |
//   +------+------+----------+----------+
//   MSIN bits: 0 VERB (verbose), 1-3 MSTP (message type: 0 log, 3 control),
//              4-7 MTIN (log: level 1 fatal .. 6 verbose; control: 1 request, 2 response,
//              3 time). NOAR: number of arguments of a verbose payload.
//
// Verbose payload: NOAR arguments, each a 32-bit type info (in the payload's byte order,
// little-endian here) followed by its data:
//
//   type info bits: 0-3 TYLE (length: 1 8 bit, 2 16, 3 32, 4 64), 4 BOOL, 5 SINT, 6 UINT,
//                   7 FLOA, 9 STRG, 10 RAWD, 15-17 coding (strings: 0 ASCII, 1 UTF-8;
//                   unsigned integers: 2 hexadecimal, 3 binary)
//   BOOL:  1 byte (0 or 1)
//   SINT/UINT/FLOA: 1, 2, 4 or 8 bytes as TYLE says
//   STRG:  LE16 length (bytes including the terminating zero), the bytes, the zero
//   RAWD:  LE16 length, the bytes
//
// Control messages (non-verbose, MSTP control; payload little-endian like ours):
//
//   every payload starts with the service ID (LE32); a response follows it with a status
//   byte (0 ok, 1 not supported, 2 error).
//   set log level request (0x01):        service | app ID(4) | ctx ID(4) | level(i8) | interface(4)
//   get log info request (0x03):         service | options(u8) | app ID(4) | ctx ID(4) | interface(4)
//   get log info response:               service | status(options: 7 with descriptions)
//                                        | app count LE16
//                                        | per app: app ID(4) | ctx count LE16
//                                        |   per ctx: ctx ID(4) | level(i8) | trace status(i8)
//                                        |            | description length LE16 | description
//                                        |   app description length LE16 | app description
//                                        | interface(4) "remo"
//                                        | zero bytes up to a payload of 32 bytes
//     (always status 7, also with no application: a DLT gateway (Debian's dlt-daemon in
//     its multi-node mode) refuses status 8 and any answer shorter than 32 bytes)
//   get default log level response (0x04): service | status | level(u8)
//   set default log level request (0x11):  service | level(i8) | interface(4)
//   get software version response (0x13):  service | status | length LE32 | text (no zero)
//   keep-alive (control time, MTIN 3):   no payload

#ifndef LOGFERRY_TOOLS_DLT_LAYOUT_HPP
#define LOGFERRY_TOOLS_DLT_LAYOUT_HPP

#include <cstddef>
#include <cstdint>

namespace logferry_dlt {
namespace layout {

// Storage header
constexpr unsigned char STORAGE_PATTERN[4] = {'D', 'L', 'T', 0x01};
constexpr std::size_t STORAGE_SECONDS = 4;
constexpr std::size_t STORAGE_MICROS = 8;
constexpr std::size_t STORAGE_ECU = 12;
constexpr std::size_t STORAGE_TIME_SIZE = 4;  // the seconds and the microseconds, each LE32
static_assert(STORAGE_SECONDS + STORAGE_TIME_SIZE == STORAGE_MICROS &&
                  STORAGE_MICROS + STORAGE_TIME_SIZE == STORAGE_ECU,
              "storage header");
// (16 bytes in all: STORAGE_HEADER_SIZE in dlt_message.hpp)

// Serial header
constexpr unsigned char SERIAL_PATTERN[4] = {'D', 'L', 'S', 0x01};

// Standard header
constexpr std::uint8_t HTYP_UEH = 0x01;
constexpr std::uint8_t HTYP_MSBF = 0x02;
constexpr std::uint8_t HTYP_WEID = 0x04;
constexpr std::uint8_t HTYP_WSID = 0x08;
constexpr std::uint8_t HTYP_WTMS = 0x10;
constexpr std::uint8_t HTYP_VERSION_MASK = 0xE0;
constexpr std::uint8_t HTYP_VERSION_1 = 0x20;
constexpr std::uint8_t HTYP_WRITTEN = HTYP_UEH | HTYP_WEID | HTYP_WSID | HTYP_WTMS | HTYP_VERSION_1;  // 0x3D
constexpr std::size_t STD_HTYP = 0;
constexpr std::size_t STD_MCNT = 1;
constexpr std::size_t STD_LEN = 2;
constexpr std::size_t STD_FIXED_SIZE = 4;  // HTYP, MCNT, LEN
constexpr std::size_t LEN_SIZE = 2;        // LEN, big-endian
static_assert(STD_LEN + LEN_SIZE == STD_FIXED_SIZE, "standard header");
constexpr std::size_t STD_ECU = 4;  // when all optional fields are present
constexpr std::size_t STD_SESSION = 8;
constexpr std::size_t STD_TIMESTAMP = 12;
constexpr std::size_t STD_FULL_SIZE = 16;
constexpr std::size_t ECU_SIZE = 4;
constexpr std::size_t SESSION_SIZE = 4;
constexpr std::size_t TIMESTAMP_SIZE = 4;

// Extended header
constexpr std::size_t EXT_MSIN = 0;
constexpr std::size_t EXT_NOAR = 1;
constexpr std::size_t EXT_APP = 2;
constexpr std::size_t EXT_CONTEXT = 6;
constexpr std::size_t EXT_SIZE = 10;
constexpr std::size_t ID_SIZE = 4;
constexpr std::uint8_t MSIN_VERB = 0x01;
constexpr unsigned MSIN_MSTP_SHIFT = 1;
constexpr std::uint8_t MSIN_MSTP_MASK = 0x0E;
constexpr unsigned MSIN_MTIN_SHIFT = 4;
constexpr std::uint8_t MSTP_LOG = 0;
constexpr std::uint8_t MSTP_CONTROL = 3;
constexpr std::uint8_t MTIN_CONTROL_REQUEST = 1;
constexpr std::uint8_t MTIN_CONTROL_RESPONSE = 2;
constexpr std::uint8_t MTIN_CONTROL_TIME = 3;

constexpr std::uint8_t msin(std::uint8_t type, std::uint8_t info, bool verbose)
{
    return static_cast<std::uint8_t>((verbose ? MSIN_VERB : 0) | (type << MSIN_MSTP_SHIFT) | (info << MSIN_MTIN_SHIFT));
}

// Header bytes of every message we write (standard with all optional fields + extended)
constexpr std::size_t HEADERS_SIZE = STD_FULL_SIZE + EXT_SIZE;  // 26
constexpr std::size_t MAX_MESSAGE_SIZE = 0xFFFF;                // LEN is 16 bits

// Verbose type info
constexpr std::size_t TYPE_INFO_SIZE = 4;
constexpr std::uint32_t TYLE_8 = 1;
constexpr std::uint32_t TYLE_16 = 2;
constexpr std::uint32_t TYLE_32 = 3;
constexpr std::uint32_t TYLE_64 = 4;
constexpr std::uint32_t TI_BOOL = 0x10;
constexpr std::uint32_t TI_SINT = 0x20;
constexpr std::uint32_t TI_UINT = 0x40;
constexpr std::uint32_t TI_FLOA = 0x80;
constexpr std::uint32_t TI_STRG = 0x200;
constexpr std::uint32_t TI_RAWD = 0x400;
constexpr unsigned TI_CODING_SHIFT = 15;
constexpr std::uint32_t CODING_UTF8 = 1u << TI_CODING_SHIFT;
constexpr std::uint32_t CODING_HEX = 2u << TI_CODING_SHIFT;
constexpr std::uint32_t CODING_BIN = 3u << TI_CODING_SHIFT;
constexpr std::size_t LENGTH16_SIZE = 2;  // STRG / RAWD length field
constexpr std::size_t MAX_LENGTH16 = 0xFFFF;
// Value bytes of BOOL and of the two FLOA widths.
constexpr std::size_t BOOL_SIZE = 1;
constexpr std::size_t FLOAT32_SIZE = 4;
constexpr std::size_t FLOAT64_SIZE = 8;

// Control payloads
constexpr std::size_t SERVICE_ID_SIZE = 4;
constexpr std::size_t STATUS_SIZE = 1;
constexpr std::size_t SET_LOG_LEVEL_SIZE = 4 + 4 + 4 + 1 + 4;  // 17
constexpr std::size_t GET_LOG_INFO_SIZE = 4 + 1 + 4 + 4 + 4;   // 17
constexpr std::size_t SET_DEFAULT_LEVEL_SIZE = 4 + 1 + 4;      // 9
constexpr std::uint8_t LOG_INFO_WITH_DESCRIPTIONS = 7;
constexpr std::size_t LOG_INFO_MIN_PAYLOAD = 32;  // shorter answers are padded with zeros
constexpr unsigned char INTERFACE_REMOTE[4] = {'r', 'e', 'm', 'o'};
constexpr std::int8_t TRACE_STATUS_OFF = 0;

}  // namespace layout
}  // namespace logferry_dlt

#endif

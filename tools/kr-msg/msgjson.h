// msgjson: kr::message <-> JSON text, for kr-msg and other tools that show
// or take messages as text. Nothing here throws; every failure is reported
// as a one-line error text.
//
//   std::string text = kr::msgjson::messageToJson(m);        // pretty, indent 2
//   kr::message back;
//   std::string error;
//   if (!kr::msgjson::messageFromJson(text, back, error)) ...  // back == m
//
// The JSON form
// -------------
// A message is one JSON object with one member per field. The member name is
// "<kind>:<field>":
//   kind   bool, u32, u64, addr6, string, message, raw; an array kind adds
//          "[]" ("u32[]:SYS_TO"). The kind gives the kind bits of the id.
//   field  the vocabulary name (kr::fieldName) when the id's low 24 bits name
//          a field and its flag bits 26..24 are zero ("u32:SYS_CMD"), else
//          "0x" and the lower-case hex of id & 0x07FFFFFF ("u32:0xfe0099",
//          "u32:0x2000005" with flag bit 25). Read back, a field may also be
//          a decimal number or the hex of a named field; numbers above
//          0x7FFFFFF and bit 24 (never part of a stored id) are refused, and
//          so are two members that name the same stored id.
// Values:
//   bool     true / false
//   u32      a number; the scalar fields SYS_CMD, SYS_ERRNO, SYS_TYPE,
//            SYS_STATUS and SYS_DREASON print a value that has a name in the
//            field's own family (commands, errors, TYPE_*, STATUS_*,
//            DREASON_*) as that name. Read back: a number 0..4294967295 or
//            any name kr::constantValue knows, in any u32 field.
//   u64      a number (the full unsigned 64-bit range, exact)
//   addr6    IPAddr6::str() text ("2001:db8::1", "::ffff:10.0.0.1")
//   string   a JSON string when the bytes are valid UTF-8, else
//            {"hex": "<lower-case hex>"}
//   raw      a string of lower-case hex ("" when empty)
//   message  a nested object when its flat bytes parse, else
//            "flat:<hex of the bytes>" (also for nesting deeper than the
//            depth limit), so malformed nested bytes round-trip unchanged
//   arrays   a JSON array of element values by the same rules
// Strings, raw values and nested messages hold at most 65535 bytes (in the
// flat form for a message), arrays at most 65535 elements: the flat form
// has no room for more, and such JSON is refused.
//
// Member order
// ------------
// Members are listed in ascending order of their complete field id, so the
// text of a message does not depend on how it was built; reading ignores
// member order.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "kr/message/message.h"

namespace kr::msgjson {

// JSON nesting deeper than this is refused on input, and nested messages
// that would print deeper print as "flat:" strings.
inline constexpr unsigned kMaxDepth = 64;

// `indent` < 0 prints one line; otherwise members are indented by that many
// blanks per level.
std::string messageToJson(const message& m, int indent = 2);

// The JSON text of a message in flat form. False, with `error` naming the
// problem, when the bytes are not a flat message (unflatten fails).
bool flatToJson(const unsigned char* data, size_t len, std::string& out, std::string& error, int indent = 2);

// Parses JSON text into `out` (which is replaced). False, with a one-line
// `error`, on malformed JSON (its line, column and byte) or on text that
// does not follow the form above (with the member path, e.g.
// `at "message:0x9" / "u32:0x1": expected a number 0..4294967295`).
bool messageFromJson(std::string_view text, message& out, std::string& error);

// The same, writing the message's flat form (as message::flatten writes it,
// SYS_TO and SYS_FROM first) into `out` instead.
bool flatFromJson(std::string_view text, std::vector<unsigned char>& out, std::string& error);

// ---- Helpers shared with kr-msg ---------------------------------------------------

// Lower-case hex, two digits a byte.
std::string toHex(const unsigned char* data, size_t len);
// Hex digits (either case) to bytes; with `skipSpace` white space anywhere is
// ignored. False, with `error`, on another character or an odd count.
bool fromHex(std::string_view text, bool skipSpace, std::vector<unsigned char>& out, std::string& error);
// Why `data` is not a flat message, or "" when message::unflatten accepts it.
std::string flatProblem(const unsigned char* data, size_t len);

}  // namespace kr::msgjson

// Property lists: binary (bplist00, our own codec) and XML (through libplist).
//
// Reading checks every offset, count and reference against the buffer, bounds nesting by the number
// of objects the file holds (never by a fixed depth), and rejects a container that holds itself;
// anything malformed is an Error, never a crash. Objects that the file shares are read as one object.
#pragma once

#include <string>
#include <string_view>

#include "platform/object.h"
#include "platform/result.h"
#include "platform/value.h"

namespace orvia {

// Sniffs "bplist00" or XML ("<?xml" / "<plist", after a UTF-8 byte-order mark and blanks).
Result<Ref<Object>> read_property_list(std::string_view bytes);
Result<Ref<Object>> read_binary_plist(std::string_view bytes);
Result<Ref<Object>> read_xml_plist(std::string_view bytes);

// Writers. Records cannot be written (they belong in keyed archives); a record or nil inside a
// container is an error. Equal strings and numbers are written once; offsets and references use the
// fewest bytes the counts allow.
Result<std::string> write_binary_plist(const Object* root);
Result<std::string> write_xml_plist(const Object* root);

// A whole file through read_property_list; a missing or unreadable file is an Error.
Result<Ref<Object>> read_property_list_file(const std::string& path);

}  // namespace orvia

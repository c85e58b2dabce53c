// How orvia4-import shows a decoded reply: a readable tree of the import results, or JSON of any decoded
// keyed archive. Records are expected as GenericRecord (decoded with an empty class registry), so the
// class names and keys of the archive show as they are.
//
// Both writers walk with explicit stacks: nesting of any depth prints without recursion, and indentation
// stops growing after a fixed depth so the output stays linear in the input.
#pragma once

#include <ostream>
#include <string>

#include "platform/object.h"

namespace orvia::client {

// The results of an import (the archive's root array of MQImporterNodeResult): per account its user,
// picture and statistics path, then per category (tags, locations, albums, friends) the folder tree with
// its counts. Returns false, after one explanatory line, when the root is not a list of records.
bool write_import_report(std::ostream& out, const Object* root);

// JSON of a decoded archive value:
//   record      {"$class": "<class name>", "<key>": value, ...} in archived key order
//   array       [ ... ]              set   {"$set": [ ... ]}
//   dictionary  { "<key>": value }   (a key that is not a string shows as its number text or "<class>")
//   string      "..."                number  integer, real or true/false as archived
//   date        {"$date": seconds since 2001-01-01 UTC}
//   data        {"$data": "<base64>"}
//   nil, NSNull null                 reals that are not finite: "nan", "inf", "-inf"
// An object referenced from several places is written in full each time, except inside itself (a
// cycle) and once repeats have grown past a bound of several times the distinct output: there it is
// written as {"$ref": "<class> already shown"}.
void write_json(std::ostream& out, const Object* root, bool pretty = true);
std::string to_json(const Object* root, bool pretty = true);

}  // namespace orvia::client

// GNUstep's keyed archiver as an independent peer: the program gnustep-peer (tests/gnustep/peer) reads
// our archives with NSKeyedUnarchiver and writes archives of its own with NSKeyedArchiver, through the
// client's own copies of the record classes (MQImporterNode and its subclasses, MQImporterNodeResult,
// MQImporterAccount, OutlineFolderItem).
//
// Both directions speak one JSON form of an object graph, which dump_like_gnustep makes from our objects:
//   nil                     null
//   NSString                "text"                     NSMutableString   {"$mstring": "text"}
//   NSNumber                true / false (booleans), 42 (integers; unsigned above 2^63-1 as such),
//                           {"$real": 1.5}, {"$real": "nan" | "inf" | "-inf"}
//   NSDate                  {"$date": seconds since 2001-01-01 UTC}
//   NSData                  {"$data": "00ff"} (lowercase hex)   NSMutableData   {"$mdata": "00ff"}
//   NSNull                  {"$null": true}
//   NSArray, NSSet and      {"$id": n, "$class": "NSArray" | "NSMutableArray" | "NSSet" | "NSMutableSet",
//   their mutable forms      "$items": [...]}   (set members sorted by their JSON text)
//   dictionaries            {"$id": n, "$class": "NSDictionary" | "NSMutableDictionary",
//                            "$entries": {"key": value, ...}}     when every key is a string
//                            "$pairs": [[key, value], ...]        otherwise, sorted by the key's JSON text
//   records                 {"$id": n, "$class": "OutlineFolderItem", "<archive key>": value, ...}
//                           integer keys as integers, booleans as booleans, doubles as {"$real"}
//   an object met before    {"$ref": n}
// Only containers and records have identity (ids); strings, numbers, dates, data and NSNull are values.
// Ids count from 1 in depth-first order of first visit: array items in order, dictionary entries and
// record keys in byte order of their UTF-8 keys. Equal graphs therefore give equal JSON, sharing and
// cycles included; a set whose members are containers is the one case where ids may differ.
//
// The same form is the input of encode_with_gnustep; on the way to and from the peer every scalar
// travels as tagged text (peer/peer.h), so no JSON reader turns an integer into a real. GNUstep writes
// NSDate inline (0x33) and cannot write NaN, and its binary archives are limited to 65,536 objects and
// slow beyond a few thousand (gnustep.md).
#pragma once

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "platform/object.h"
#include "platform/result.h"

namespace orvia::test {

// The peer program was built (GNUstep was found when the build was configured).
bool gnustep_available();
#define ORVIA_REQUIRE_GNUSTEP()                                                          \
  do {                                                                                   \
    if (!::orvia::test::gnustep_available()) GTEST_SKIP() << "GNUstep peer not built"; \
  } while (0)

// GNUstep's reading of an archive: the JSON form of its root object, or an Error with the peer's message.
Result<nlohmann::json> decode_with_gnustep(std::string_view archive);

enum class ArchiveFormat { Binary, Xml };
// GNUstep's archive (archivedDataWithRootObject:) of the graph that a JSON form describes.
Result<std::string> encode_with_gnustep(const nlohmann::json& graph, ArchiveFormat format = ArchiveFormat::Binary);

// The JSON form of our object graph. Records go through their keyed encoder (GenericRecord: its
// fields, in archived order, missing keys stay missing), so a record's members are the keys it writes.
nlohmann::json dump_like_gnustep(const Object* root);

// Set members sorted by their JSON text, at any depth (decode_with_gnustep applies it to the peer's
// output; dump_like_gnustep's output already is).
void sort_set_members(nlohmann::json& dump);

// Readable JSON for failure messages (invalid UTF-8 replaced).
std::string json_text(const nlohmann::json& dump);

}  // namespace orvia::test

// Conversion of a media record that the old client stored (the photo service's older interface: keys
// "caption", "images", "likes", "link", "user", ...) into the newer interface's form, marked with
// "converted_from_orvia4". A fixed mapping of 24 keys in a fixed order; see media_conversion.cc.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/flat_graph.h"
#include "platform/object.h"
#include "platform/result.h"
#include "platform/value.h"

namespace orvia {

// unarchiveObjectWithData: of a stored `dictionary` attribute: the decoded dictionary, or an Error
// when the bytes are not a keyed archive or its root is not a dictionary.
Result<Ref<Dictionary>> decode_media_record(std::string_view archive);

// The newer form of a decoded stored record: a new mutable dictionary. A null `stored` converts as an
// empty record (only the constant keys are set). Never null.
Ref<Dictionary> convertedDictionary(const Dictionary* stored);

// The same conversion reading only the values it takes out of the archive, without decoding the rest:
// nothing when the archive is not one such reading is sure to convert exactly as decoding it whole
// would (any damage, records of other classes, keys that are not plain strings, the XML form).
std::optional<Ref<Dictionary>> convertedDictionaryByLookup(std::string_view archive);

// The same conversion as a graph (written into an archive as the dictionary would be, without making
// its objects): false, with `graph` left empty, where convertedDictionaryByLookup gives nothing or some
// value read is not a plain string, number or boolean. The graph's strings lie in `archive`'s bytes.
bool convertedGraphByLookup(std::string_view archive, FlatGraph& graph, FlatGraph::Node& root);

// Decodes and converts (reading only what it takes where it can); an absent or unreadable archive logs "Unreadable media record %@: %@" with
// `label` (the item's object URI) and the reason, and converts as an empty record.
Ref<Dictionary> convertedDictionaryFromArchive(const std::string_view* archive, std::string_view label);
// The same without logging: the reason an archive was unreadable goes to `unreadable` (left empty when
// it was read), for callers that log it themselves (in the records' order).
Ref<Dictionary> convertedDictionaryFromArchive(const std::string_view* archive, std::string* unreadable);
// The same, giving the conversion as a graph where convertedGraphByLookup can (null is returned, and
// `graph` and `root` hold it), as a dictionary otherwise.
Ref<Dictionary> convertedMediaFromArchive(const std::string_view* archive, std::string* unreadable, FlatGraph& graph,
                                          FlatGraph::Node& root);

}  // namespace orvia

// Where the importer lives on the session bus. The one method takes no arguments and replies
// (b success, h archive): the archive is a sealed memory file, empty when the reply carries no archive.
#pragma once

namespace orvia::service {

inline constexpr const char* kBusName = "com.brenvik.Orvia4Importer";
inline constexpr const char* kObjectPath = "/com/brenvik/Orvia4Importer";
inline constexpr const char* kInterfaceName = "com.brenvik.Orvia4ImporterProtocol";
inline constexpr const char* kMethodName = "findImportableResultsWithDataCompletion";

}  // namespace orvia::service

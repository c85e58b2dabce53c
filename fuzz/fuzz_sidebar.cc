// The sidebar model loaded from the old client's preferences, and its export, without a store.
//
// Input: the first byte chooses what the rest stands for (low two bits):
//   0  the whole preferences file;
//   1  the keyed archive under "OutlineFolderModels" for the user "1001";
//   2  the same for the shared albums folder ("*--*albums*--*");
//   3  the same archive under both.
// In modes 1-3 the rest of the preferences is fixed: the install marker and favourite tags and
// locations for the user. The file is written into a temporary home made once per process.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "fuzz_common.h"
#include "legacy/user_defaults_wrapper.h"
#include "nodes/folder_export.h"
#include "nodes/importer_context.h"
#include "outline/outline_folder_model.h"
#include "platform/description.h"
#include "platform/keyed_archive.h"
#include "platform/plist.h"
#include "records/records.h"

namespace {

constexpr std::string_view kBundleID = "com.brenvik.velmora";
constexpr std::string_view kUser = "1001";

std::filesystem::path g_home;
std::filesystem::path g_preferences;

void remove_home() {
  std::error_code ec;
  if (!g_home.empty()) std::filesystem::remove_all(g_home, ec);
}

void make_home() {
  namespace fs = std::filesystem;
  std::error_code ec;
  fs::path base = fs::is_directory("/dev/shm", ec) && ::access("/dev/shm", W_OK) == 0 ? fs::path("/dev/shm")
                                                                                     : fs::temp_directory_path();
  std::string pattern = (base / "orvia-fuzz-sidebar-XXXXXX").string();
  if (!::mkdtemp(pattern.data())) orvia::fuzz::fail("cannot make a temporary home");
  g_home = pattern;
  fs::path dir = g_home / "Library/Containers" / kBundleID / "Data/Library/Preferences";
  fs::create_directories(dir, ec);
  if (ec) orvia::fuzz::fail("cannot make the preferences folder", ec.message());
  g_preferences = dir / (std::string(kBundleID) + ".plist");
  std::atexit(remove_home);
}

void write_preferences(std::string_view bytes) {
  std::ofstream out(g_preferences, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!out) orvia::fuzz::fail("cannot write the preferences file");
}

// The fixed preferences around the stored tree(s).
std::string preferences_with(std::string_view archive, bool for_user, bool for_albums) {
  using namespace orvia;
  auto models = mutable_dict();
  if (for_user) models->set(kUser, data(archive));
  if (for_albums) models->set(kSharedAlbumsUserID, data(archive));
  auto prefs = mutable_dict({
      {"FinishedStartScreen410x", boolean(true)},
      {kOutlineFolderModels, models},
      {"FavoriteSidebarTags", dict({{kUser, array({dict({{"tag", str("sunset")}, {"count", num(3)}})})}})},
      {"FavoriteSidebarLocations",
       dict({{kUser, array({dict({{"id", str("213385402")}, {"latitude", real(59.9)}, {"longitude", real(10.7)}})})}})},
  });
  Result<std::string> bytes = write_binary_plist(prefs.get());
  if (!bytes.ok()) fuzz::fail("cannot write the fixed preferences", bytes.error().message);
  return std::move(bytes.value());
}

void load_and_export(const orvia::Ref<orvia::MQUserDefaultsWrapper>& defaults, orvia::Ref<orvia::Object> user) {
  using namespace orvia;
  Ref<OutlineFolderModel> model = OutlineFolderModel::initWithExistingUser(std::move(user), false, defaults);
  if (!model->rootItem()) fuzz::fail("a model with a user has no root after loading");
  (void)description(model->identifiers().get());
  (void)description(model->expandedFolders().get());
  (void)model->folderSignature();
  for (std::string_view base : {kFolderTagsIdentifier, kFolderAlbumsIdentifier}) {
    if (Ref<Data> archived = model->folderStructureForMainIdentifier(base)) {
      if (!unarchive(archived->bytes()).ok()) fuzz::fail("a folder structure written by the model does not decode");
    }
  }
  Ref<MQImporterContext> context = MQImporterContext::contextWithDefaults(defaults, nullptr, nullptr);
  Ref<MQImporterNodeResult> result = folderTreeWithContext(*model, *context);
  if (!result) fuzz::fail("folderTreeWithContext gave nil");
  (void)description(context->messages.get());
  std::string reply = archive_root(result.get());
  if (!unarchive(reply).ok()) fuzz::fail("an exported result does not decode");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  orvia::fuzz::quiet_log();
  orvia::register_record_classes();
  orvia::register_outline_classes();
  make_home();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace orvia;
  if (size == 0) return 0;
  const unsigned mode = data[0] & 3u;
  std::string_view rest = fuzz::bytes_of(data + 1, size - 1);
  fuzz::with_heap([&] {
    write_preferences(mode == 0 ? std::string(rest) : preferences_with(rest, mode & 1u, mode & 2u));
    Ref<MQUserDefaultsWrapper> defaults = MQUserDefaultsWrapper::initWithBundleID(kBundleID, g_home.string());
    (void)defaults->hasExistingOrviaInstall();
    load_and_export(defaults, str(kUser));
    // The shared album tree is exported as the pseudo-user's own tree.
    load_and_export(defaults, str(kSharedAlbumsUserID));
  });
  return 0;
}

#include "legacy/user_defaults_wrapper.h"

#include <sys/stat.h>

#include "platform/format.h"
#include "platform/home.h"
#include "platform/log.h"
#include "platform/plist.h"

namespace orvia {

Ref<MQUserDefaultsWrapper> MQUserDefaultsWrapper::initWithBundleID(std::string_view bundle_id) {
  return initWithBundleID(bundle_id, home_directory());
}

Ref<MQUserDefaultsWrapper> MQUserDefaultsWrapper::initWithBundleID(std::string_view bundle_id,
                                                                 std::string home_folder) {
  return Ref<MQUserDefaultsWrapper>(new MQUserDefaultsWrapper(std::string(bundle_id), std::move(home_folder)));
}

std::span<const std::string_view> MQUserDefaultsWrapper::class_chain() const {
  static constexpr std::string_view kChain[] = {"MQUserDefaultsWrapper", "NSObject"};
  return kChain;
}

void MQUserDefaultsWrapper::drop_refs() {
  std::lock_guard<std::mutex> lock(mutex_);
  top_ = nullptr;
  cached_ = false;
}

std::string MQUserDefaultsWrapper::preferencesDomain() const {
  return home_folder_ + "/Library/Containers/" + bundle_id_ + "/Data/Library/Preferences/" + bundle_id_;
}

Ref<Dictionary> MQUserDefaultsWrapper::preferences() const {
  // The domain names the file without its suffix; the file itself carries ".plist".
  const std::string path = preferencesDomain() + ".plist";
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (snapshots_ > 0 && snapshot_checked_ && cached_ && usable_in_this_heap()) return top_;
  }
  FileStamp stamp;
  struct stat st {};
  if (::stat(path.c_str(), &st) == 0) {
    stamp.exists = true;
    stamp.dev = static_cast<std::uint64_t>(st.st_dev);
    stamp.ino = static_cast<std::uint64_t>(st.st_ino);
    stamp.size = static_cast<std::uint64_t>(st.st_size);
    stamp.mtime_ns = static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    stamp.ctime_ns = static_cast<std::int64_t>(st.st_ctim.tv_sec) * 1000000000 + st.st_ctim.tv_nsec;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  snapshot_checked_ = snapshots_ > 0;  // the first lookup of a snapshot still looks at the file
  // Values read outside any heap belong to none and stay whole wherever they are used, so the file
  // read for the installation check serves the run too; values read inside a heap end with it.
  if (cached_ && stamp == stamp_ && usable_in_this_heap()) return top_;
  Ref<Dictionary> top;
  if (stamp.exists) {
    auto parsed = read_property_list_file(path);
    if (parsed.ok() && as_dict(parsed.value().get())) top = Ref<Dictionary>(as_dict(parsed.value().get()));
    // An unreadable file or a top level that is not a dictionary holds no preferences.
  }
  // Values another thread read into a heap that still tracks them are left for that thread to
  // replace: their last reference dropped here would unlink them from a heap it may be using at this
  // very moment (a helper with a heap of its own then reads the file for itself, uncached).
  if (top_ && top_->heap() && reader_ != std::this_thread::get_id()) return top;
  cached_ = true;
  stamp_ = stamp;
  heap_ = Heap::current_serial();
  reader_ = std::this_thread::get_id();
  top_ = top;
  return top;
}

MQUserDefaultsWrapper::Snapshot::Snapshot(const MQUserDefaultsWrapper& defaults) : defaults_(defaults) {
  std::lock_guard<std::mutex> lock(defaults_.mutex_);
  if (defaults_.snapshots_++ == 0) {
    defaults_.snapshot_checked_ = false;
    defaults_.snapshot_heap_ = Heap::current_serial();
  }
}

MQUserDefaultsWrapper::Snapshot::~Snapshot() {
  std::lock_guard<std::mutex> lock(defaults_.mutex_);
  if (--defaults_.snapshots_ == 0) {
    defaults_.snapshot_checked_ = false;
    defaults_.snapshot_heap_ = 0;
  }
}

bool MQUserDefaultsWrapper::usable_in_this_heap() const {
  // Values read outside any heap serve every heap. Values read in the heap where the open snapshot
  // began also serve the threads that help the run with heaps of their own: that heap outlives the
  // snapshot, and the helpers are done before the snapshot ends.
  return heap_ == 0 || heap_ == Heap::current_serial() || (snapshots_ > 0 && heap_ == snapshot_heap_);
}

Ref<Object> MQUserDefaultsWrapper::valueForKey(std::string_view key) const {
  Ref<Dictionary> top = preferences();
  if (!top) return nullptr;
  return Ref<Object>(top->get(key));
}

bool MQUserDefaultsWrapper::hasExistingOrviaInstall() const {
  for (std::string_view marker : kInstallMarkers) {
    if (valueForKey(marker)) return true;
  }
  return false;
}

Ref<String> MQUserDefaultsWrapper::statisticsPathWithAccountID(const Object* account_id) const {
  Ref<String> home = str(home_folder_);
  Ref<String> bundle = str(bundle_id_);
  std::string path = format("%@/Library/Containers/%@/Data/Library/Application Support/Velmora/%@.db",
                            {FormatArg(home), FormatArg(bundle), FormatArg(account_id)});
  Ref<String> result = str(path);
  NSLog("folder is: %@", result);
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return nullptr;  // the file manager's test follows links too
  return result;
}

}  // namespace orvia

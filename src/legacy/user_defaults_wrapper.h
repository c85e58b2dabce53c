// Read access to the preferences of the old client (Orvia 4), which it kept in its own sandbox
// container below the user's home folder, and two questions about that installation.
//
// The preferences domain is "<home>/Library/Containers/<id>/Data/Library/Preferences/<id>"; the file
// read is that path plus ".plist" (binary or XML property list). Nothing here ever writes a file.
//
// Threads: created and asked hasExistingOrviaInstall() on the thread that serves a request, then used
// from the main queue. The two fields never change; the parsed-file cache is guarded by a mutex.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "platform/keyed_archive.h"
#include "platform/object.h"
#include "platform/value.h"

namespace orvia {

class MQUserDefaultsWrapper final : public Record {
 public:
  // The keys whose presence shows that the old client finished its start screen, in test order.
  static constexpr std::array<std::string_view, 5> kInstallMarkers = {
      "FinishedStartScreen400", "FinishedStartScreen400x", "FinishedStartScreen410x",
      "FinishedStartScreen410xxxxxx", "FinishedStartScreen415x"};

  // Stores the bundle identifier and the home folder as the platform reports it now. Touches no file.
  static Ref<MQUserDefaultsWrapper> initWithBundleID(std::string_view bundle_id);
  // The same with an explicit home folder (tools and tests that stand a folder in for a home).
  static Ref<MQUserDefaultsWrapper> initWithBundleID(std::string_view bundle_id, std::string home_folder);

  const std::string& bundleID() const { return bundle_id_; }
  const std::string& homeFolder() const { return home_folder_; }
  // "<home>/Library/Containers/<id>/Data/Library/Preferences/<id>" (no suffix).
  std::string preferencesDomain() const;

  // The legacy preference under `key`, or nil when the file, its top-level dictionary or the key is
  // missing. Never fails. The value is shared with later lookups: callers must not modify it.
  Ref<Object> valueForKey(std::string_view key) const;

  // True when any of the five markers has a value (whatever the value: NO, 0 and "" count).
  bool hasExistingOrviaInstall() const;

  // "<home>/Library/Containers/<id>/Data/Library/Application Support/Velmora/<account id>.db" when
  // anything (a folder too) exists there, else nil. Logs "folder is: %@" with the path on every call.
  // The account id is formatted by its description text (a number by its decimal digits).
  Ref<String> statisticsPathWithAccountID(const Object* account_id) const;

  // While one is alive, lookups are answered from the file as it was when first read, without looking
  // at the file again: a request reads one state of the preferences, and its many lookups (one per
  // sidebar entry) cost no file-system call each. Scopes nest.
  class Snapshot {
   public:
    explicit Snapshot(const MQUserDefaultsWrapper& defaults);
    ~Snapshot();
    Snapshot(const Snapshot&) = delete;
    Snapshot& operator=(const Snapshot&) = delete;

   private:
    const MQUserDefaultsWrapper& defaults_;
  };

  std::span<const std::string_view> class_chain() const override;
  void encode_with_coder(KeyedEncoder&) const override {}  // never archived
  void init_with_coder(KeyedDecoder&) override {}

 private:
  MQUserDefaultsWrapper(std::string bundle_id, std::string home_folder)
      : bundle_id_(std::move(bundle_id)), home_folder_(std::move(home_folder)) {}
  Ref<Dictionary> preferences() const;
  void drop_refs() override;

  const std::string bundle_id_;
  const std::string home_folder_;

  // The parsed file is kept while the file on disk stays the same one (device, inode, size, change
  // time) and while the same object heap is current; any change makes the next lookup read it again.
  // This keeps lookups "fresh" while a request reads the file only once.
  struct FileStamp {
    bool exists = false;
    std::uint64_t dev = 0, ino = 0, size = 0;
    std::int64_t mtime_ns = 0, ctime_ns = 0;
    bool operator==(const FileStamp&) const = default;
  };
  mutable std::mutex mutex_;
  mutable bool cached_ = false;
  mutable int snapshots_ = 0;              // live Snapshot scopes
  mutable bool snapshot_checked_ = false;  // the file was looked at since the outermost scope began
  mutable FileStamp stamp_;
  // Heaps by serial number (0: none), since a later heap may take the address of one that has ended.
  mutable std::uint64_t heap_ = 0;           // the heap the cached values were read in
  mutable std::thread::id reader_;           // the thread that read them
  mutable std::uint64_t snapshot_heap_ = 0;  // the heap current when the outermost snapshot began
  bool usable_in_this_heap() const;              // whether the cached values may serve this thread (locked)
  mutable Ref<Dictionary> top_;
};

}  // namespace orvia

// The sidebar models of one import run, loaded ahead on a thread of their own.
//
// A run loads one model per account and then the shared albums model, and exports each account right
// after loading its model. Loading (unarchiving a sidebar tree and indexing it) does not depend on the
// exports, so a helper thread loads the models in the run's order while the run exports the ones that
// are ready: the two halves of the run's first phase overlap on two cores.
//
// What the run sees is unchanged:
//  - take(i) gives the model the run would have loaded in turn: the helper's, waiting for it if need
//    be, or one loaded there and then when the helper has not started on it (so the run does not
//    sit idle waiting for its first model);
//  - the lines logged while loading it (and its identifiers line, when asked for) are held back and
//    written by take(i), so the log reads in the same order;
//  - a failure while loading (out of memory) is raised by take(i) on the run's thread.
// Each model is made in a heap of its own (a heap's objects are made on one thread), which ends with
// the loader: cycles of the sidebar trees are cut then, as the run's heap would have cut them.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "legacy/user_defaults_wrapper.h"
#include "outline/outline_folder_model.h"

namespace orvia {

class SidebarModelLoader {
 public:
  struct Request {
    Ref<Object> user;
    bool log_identifiers = false;  // log the model's identifiers once loaded, as the run does per account
  };
  // Starts loading at once. Record and outline classes must be registered before.
  SidebarModelLoader(std::vector<Request> requests, Ref<MQUserDefaultsWrapper> defaults);
  // Stops after the model being loaded, then ends the models' heaps.
  ~SidebarModelLoader();
  SidebarModelLoader(const SidebarModelLoader&) = delete;
  SidebarModelLoader& operator=(const SidebarModelLoader&) = delete;

  // The i-th model, once loaded, after writing what loading it logged; each index is taken once.
  Ref<OutlineFolderModel> take(std::size_t i);

 private:
  struct Job {
    Request request;
    std::unique_ptr<Heap> heap = std::make_unique<Heap>();
    std::vector<std::string> lines;
    Ref<OutlineFolderModel> model;
    std::exception_ptr error;
    bool claimed = false;  // by the helper thread or, when it comes first, by take()
    bool done = false;
  };
  Ref<OutlineFolderModel> load(const Request& request) const;
  void run();

  Ref<MQUserDefaultsWrapper> defaults_;
  std::vector<Job> jobs_;
  std::mutex mutex_;
  std::condition_variable done_cv_;
  bool stop_ = false;
  std::thread thread_;  // last: started once everything it uses is in place
};

}  // namespace orvia

#include "service/sidebar_models.h"

#include "platform/log.h"
#include "platform/queue.h"

namespace orvia {

SidebarModelLoader::SidebarModelLoader(std::vector<Request> requests, Ref<MQUserDefaultsWrapper> defaults)
    : defaults_(std::move(defaults)) {
  // The preferences are read here first (within the run's snapshot and heap), so that the helper's
  // lookups get the run's copy of them rather than a copy of their own.
  (void)defaults_->valueForKey(kOutlineFolderModels);
  jobs_.reserve(requests.size());
  for (Request& r : requests) {
    jobs_.emplace_back();
    jobs_.back().request = std::move(r);
  }
  thread_ = std::thread([this] {
    name_this_thread("orvia-sidebar");
    run();
  });
}

SidebarModelLoader::~SidebarModelLoader() {
  {
    std::lock_guard lock(mutex_);
    stop_ = true;
  }
  thread_.join();
  // The models' own objects go with their heaps (in the run's order); what the run still holds of them
  // outlives them as empty shells, as with the run's heap.
  for (Job& job : jobs_) {
    job.model = nullptr;
    job.heap.reset();
  }
}

Ref<OutlineFolderModel> SidebarModelLoader::load(const Request& request) const {
  Ref<OutlineFolderModel> model = OutlineFolderModel::initWithExistingUser(request.user, false, defaults_);
  if (request.log_identifiers) NSLog("%@", model->identifiers());
  return model;
}

void SidebarModelLoader::run() {
  for (Job& job : jobs_) {
    {
      std::lock_guard lock(mutex_);
      if (stop_) return;
      if (job.claimed) continue;  // the run's thread got to it first
      job.claimed = true;
    }
    Ref<OutlineFolderModel> model;
    std::exception_ptr error;
    {
      HeapScope scope(*job.heap);
      LogHold hold(job.lines);
      try {
        model = load(job.request);
      } catch (...) {
        error = std::current_exception();
      }
    }
    std::lock_guard lock(mutex_);
    job.model = std::move(model);
    job.error = error;
    job.done = true;
    done_cv_.notify_one();
  }
}

Ref<OutlineFolderModel> SidebarModelLoader::take(std::size_t i) {
  Job& job = jobs_.at(i);
  {
    std::unique_lock lock(mutex_);
    if (!job.claimed) {
      // Not started yet: loaded here, in the run's heap, its lines written as they come.
      job.claimed = true;
      lock.unlock();
      return load(job.request);
    }
    done_cv_.wait(lock, [&] { return job.done; });
  }
  write_held(job.lines);
  if (job.error) std::rethrow_exception(job.error);
  return std::move(job.model);
}

}  // namespace orvia

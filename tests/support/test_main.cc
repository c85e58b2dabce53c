// Test entry: every test runs with its own heap, so objects with cycles are freed when it ends.
#include <gtest/gtest.h>

#include <memory>

#include "platform/object.h"

namespace {

class HeapPerTest : public testing::EmptyTestEventListener {
 public:
  void OnTestStart(const testing::TestInfo&) override {
    heap_ = std::make_unique<orvia::Heap>();
    scope_ = std::make_unique<orvia::HeapScope>(*heap_);
  }
  void OnTestEnd(const testing::TestInfo&) override {
    scope_.reset();
    heap_.reset();
  }

 private:
  std::unique_ptr<orvia::Heap> heap_;
  std::unique_ptr<orvia::HeapScope> scope_;
};

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  testing::UnitTest::GetInstance()->listeners().Append(new HeapPerTest);
  return RUN_ALL_TESTS();
}

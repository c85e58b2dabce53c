#include <gtest/gtest.h>

#include <cmath>

#include "platform/plist.h"
#include "platform/value.h"

namespace orvia {
namespace {

TEST(Heap, FreesCyclesAndDeepNestingWithoutRecursion) {
  Heap heap;
  {
    HeapScope scope(heap);
    auto a = mutable_array();
    a->push_back(a);  // holds itself
    auto outer = mutable_array();
    Ref<Array> cur = outer;
    for (int i = 0; i < 200000; ++i) {
      auto next = mutable_array();
      cur->push_back(next);
      cur = next;
    }
    EXPECT_GE(heap.tracked_count(), 200002u);
  }
  // Leaving the scope released the deep chain without recursing; the cycle stays until the heap ends.
  EXPECT_EQ(heap.tracked_count(), 1u);
}

TEST(Dictionary, KeepsFileOrderAndFindsKeysAtAnySize) {
  auto d = mutable_dict();
  for (int i = 40; i > 0; --i) d->set(std::to_string(i), num(i));
  EXPECT_EQ(text_of(d->entries().front().first.get()), "40");
  for (int i = 1; i <= 40; ++i) EXPECT_EQ(as_number(d->get(std::to_string(i)))->int_value(), i);
  d->set("7", str("seven"));
  EXPECT_EQ(d->size(), 40u);
  EXPECT_EQ(text_of(d->get("7")), "seven");
  EXPECT_TRUE(d->remove("7"));
  EXPECT_EQ(d->get("7"), nullptr);
  EXPECT_EQ(as_number(d->get("8"))->int_value(), 8);
}

TEST(Number, KeepsKindsApart) {
  EXPECT_TRUE(boolean(true)->is_bool());
  EXPECT_FALSE(num(1)->is_bool());
  EXPECT_EQ(boolean(true).get(), boolean(true).get());
  EXPECT_EQ(Number::from_uint(UINT64_MAX)->uint_value(), UINT64_MAX);
  EXPECT_EQ(Number::from_uint(5)->type(), Number::Type::Signed);
  EXPECT_EQ(real(-2.75)->int_value(), -2);
}

TEST(DeepEqual, KindsApartRealsAndDatesByValueNaNEqualToNaN) {
  const double nan = std::nan("");
  const struct {
    const char* name;
    Ref<Object> a, b;
    bool equal;
  } cases[] = {
      {"NaN and NaN", real(nan), real(-nan), true},
      {"NaN and a number", real(nan), real(1.0), false},
      {"real and integer of one value", real(1.0), num(1), true},
      {"integer and boolean of one value", num(1), boolean(true), false},
      {"zero and negative zero", real(0.0), real(-0.0), true},
      {"NaN dates", date(nan), date(nan), true},
      {"NaN date and a date", date(nan), date(0), false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(deep_equal(c.a.get(), c.b.get()), c.equal);
    // A value holding NaN equals its copy through a property list.
    auto back = read_binary_plist(write_binary_plist(array({c.a}).get()).value());
    ASSERT_TRUE(back.ok());
    EXPECT_TRUE(deep_equal(array({c.a}).get(), back.value().get()));
  }
}

}  // namespace
}  // namespace orvia

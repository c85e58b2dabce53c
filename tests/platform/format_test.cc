#include "platform/format.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "platform/value.h"

namespace orvia {
namespace {

TEST(Format, ConversionsAndMissingExtraOrMalformedArguments) {
  const auto tag = str("sunset");
  const auto* address = reinterpret_cast<const void*>(std::uintptr_t{0x55d0c0a0});
  const std::int64_t big = std::numeric_limits<std::int64_t>::max();
  const std::uint64_t ubig = std::numeric_limits<std::uint64_t>::max();
  const std::size_t count = 3;
  const long long negative = -42;
  const std::pair<std::string, std::string> cases[] = {
      {format("Unknown item %@", {tag}), "Unknown item sunset"},
      {format("Unknown item %@", {tag.get()}), "Unknown item sunset"},
      {format("invalid account: %@", {nullptr}), "invalid account: (null)"},
      {format("%@", {std::string("text with %@ inside")}), "text with %@ inside"},
      {format("Invalid favorite tag '%@'", {dict({{"name", tag}})}), "Invalid favorite tag '{\n    name = sunset;\n}'"},
      {format("wrogn kind of class: %@", {num(12)}), "wrogn kind of class: 12"},
      {format("%@.%@.%li", {str("root"), str("Root"), 4}), "root.Root.4"},
      {format("%li %ld %lld %d %i", {-1, big, negative, 7, 0}), "-1 9223372036854775807 -42 7 0"},
      {format("%lu %llu %zu %u", {ubig, ubig, count, -1}),
       "18446744073709551615 18446744073709551615 3 18446744073709551615"},
      {format("%d", {num(-5)}), "-5"},
      {format("%x %X %5li|%-4d|%03u", {255, 255, 42, 7, 5}), "ff FF    42|7   |005"},
      {format("<OutlineFolderItem %p '%@' %li children '%@'>", {address, str("Trips"), 2, str("f-1")}),
       "<OutlineFolderItem 0x55d0c0a0 'Trips' 2 children 'f-1'>"},
      {format("%p", {static_cast<const void*>(nullptr)}), "0x0"},
      {format("%p", {tag}), format("%p", {static_cast<const void*>(tag.get())})},
      {format("100%% done", {}), "100% done"},
      {format("Failed to initalize persistent store: %@\n%@", {str("gone"), dict()}),
       "Failed to initalize persistent store: gone\n{\n}"},
      // Missing arguments print as nothing would, extra ones are left over, malformed specs print as written.
      {format("%@ and %@", {str("one")}), "one and (null)"},
      {format("%li items", {}), "0 items"},
      {format("%p", {}), "0x0"},
      {format("just text", {str("unused")}), "just text"},
      {format("", {1}), ""},
      {format("trailing %", {}), "trailing %"},
      {format("trailing %l", {5}), "trailing %l"},
      {format("%s %f %@", {str("a"), str("b")}), "%s %f a"},
      {format("%99999999999d|", {1}), "%99999999999d|"},
      {format("%%%@%%", {str("x")}), "%x%"},
      {format("%.3d", {7}), "007"},
  };
  for (const auto& [got, want] : cases) EXPECT_EQ(got, want);
}

}  // namespace
}  // namespace orvia

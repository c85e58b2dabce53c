// Strings read from any source hold well-formed UTF-8, so that a value written and read back (or
// archived and unarchived) is the value read: ill-formed bytes read as U+FFFD, for each maximal
// ill-formed part, as Unicode recommends.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/keyed_archive.h"
#include "platform/plist.h"
#include "platform/value.h"

namespace orvia {
namespace {

// A bplist whose objects are given as raw bytes (one-byte offsets and references), top object 0.
std::string bplist_of(const std::vector<std::string>& objects) {
  std::string out = "bplist00";
  std::vector<std::size_t> offsets;
  for (const std::string& o : objects) {
    offsets.push_back(out.size());
    out += o;
  }
  const std::size_t table = out.size();
  for (std::size_t off : offsets) out.push_back(static_cast<char>(off));
  out.append(6, '\0');
  out.push_back(1);
  out.push_back(1);
  for (std::uint64_t v : {std::uint64_t(objects.size()), std::uint64_t(0), std::uint64_t(table)})
    for (int b = 7; b >= 0; --b) out.push_back(static_cast<char>((v >> (8 * b)) & 0xff));
  return out;
}

// A UTF-8 string object (marker 0x7n) of fewer than 15 bytes.
std::string utf8_object(const std::string& bytes) { return static_cast<char>(0x70 | bytes.size()) + bytes; }

const std::string kFFFD = "\xEF\xBF\xBD";

struct TextCase {
  const char* name;
  std::string stored;
  std::string read;
};

std::vector<TextCase> text_cases() {
  return {
      {"well-formed", "caf\xC3\xA9 \xF0\x9F\x98\x80", "caf\xC3\xA9 \xF0\x9F\x98\x80"},
      {"a real U+FFFD stays", kFFFD, kFFFD},
      {"lone continuation byte", "a\x80z", "a" + kFFFD + "z"},
      {"truncated three-byte sequence", "\xE2\x82z", kFFFD + "z"},
      {"truncated at the end", "ab\xF0\x9F\x98", "ab" + kFFFD},
      {"overlong slash", "\xC0\xAF", kFFFD + kFFFD},
      {"surrogate", "\xED\xA0\x80", kFFFD + kFFFD + kFFFD},
      {"beyond U+10FFFF", "\xF4\x90\x80\x80", kFFFD + kFFFD + kFFFD + kFFFD},
      {"lead byte before ASCII", std::string("?\xF0\x00\x01\x00", 5), "?" + kFFFD + std::string("\x00\x01\x00", 3)},
      {"byte FF", "\xFF", kFFFD},
  };
}

TEST(PlistText, IllFormedUtf8ReadsAsReplacementAndRoundTrips) {
  for (const TextCase& c : text_cases()) {
    SCOPED_TRACE(c.name);
    // Read from a binary property list.
    auto read = read_binary_plist(bplist_of({utf8_object(c.stored)}));
    ASSERT_TRUE(read.ok()) << read.error().message;
    EXPECT_EQ(text_of(read.value().get()), c.read);
    // Written as it is held (a string made in memory with ill-formed bytes writes the same way).
    Ref<String> made = str(c.stored);
    for (const Object* value : std::vector<const Object*>{read.value().get(), made.get()}) {
      auto written = write_binary_plist(value);
      ASSERT_TRUE(written.ok()) << written.error().message;
      auto back = read_binary_plist(written.value());
      ASSERT_TRUE(back.ok()) << back.error().message;
      EXPECT_EQ(text_of(back.value().get()), c.read);
    }
    // Read from XML (libplist passes the bytes through), as a key and as a value.
    if (c.stored.find('\0') != std::string::npos) continue;
    auto xml = read_xml_plist("<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>" + c.stored + "</key><string>" +
                              c.stored + "</string></dict></plist>");
    ASSERT_TRUE(xml.ok()) << xml.error().message;
    const Dictionary* d = as_dict(xml.value().get());
    ASSERT_TRUE(d && d->size() == 1);
    EXPECT_EQ(text_of(d->entries()[0].first.get()), c.read);
    EXPECT_EQ(text_of(d->entries()[0].second.get()), c.read);
  }
}

TEST(PlistText, XmlStringHoldingNulReads) {
  // Asking libplist for the C string would end the process; the text ends at the NUL, as it is written.
  auto read = read_xml_plist(std::string("<plist version=\"1.0\"><array><string>a\0b</string></array></plist>", 64));
  ASSERT_TRUE(read.ok()) << read.error().message;
  const Array* list = as_array(read.value().get());
  ASSERT_TRUE(list && list->size() == 1);
  EXPECT_EQ(text_of(list->at(0).get()), "a");
}

TEST(PlistText, ArchivedKeysReadAsStringValuesDo) {
  // A record of an unknown class whose key is an ASCII-marker string with a Latin-1 byte, and one whose
  // key is ill-formed UTF-8: the keys read as the strings would, and archive back unchanged.
  const std::string latin1_key = "\x54" "caf\xE9";     // 0x54: ASCII string of 4 bytes
  const std::string ill_formed_key = "\x72" "a\xFF";  // 0x72: UTF-8 string of 2 bytes
  // $top {root: UID 1}; $objects [$null, the record, its class {$classname: "Thing"}].
  std::string archive = bplist_of({
      std::string("\xD4\x01\x02\x03\x04\x05\x06\x07\x08", 9),
      "\x59$archiver", "\x58$version", "\x54$top", "\x58$objects",
      std::string("\x5F\x10\x0F", 3) + "NSKeyedArchiver", std::string("\x12\x00\x01\x86\xA0", 5),
      std::string("\xD1\x09\x0A", 3),
      std::string("\xA3\x0B\x0C\x0D", 4),
      "\x54root", std::string("\x80\x01", 2),
      "\x55$null",
      std::string("\xD3\x0E\x0F\x10\x11\x12\x13", 7),
      std::string("\xD1\x14\x15", 3),
      "\x56$class", latin1_key, ill_formed_key,
      std::string("\x80\x02", 2), std::string("\x10\x01", 2), std::string("\x10\x02", 2),
      "\x5A$classname", "\x55Thing",
  });
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round == 0 ? "as stored" : "archived again");
    auto root = unarchive(archive);
    ASSERT_TRUE(root.ok()) << root.error().message;
    const auto* record = dynamic_cast<const GenericRecord*>(root.value().get());
    ASSERT_NE(record, nullptr);
    ASSERT_EQ(record->fields().size(), 2u);
    EXPECT_EQ(record->fields()[0].key, "caf\xC3\xA9");
    EXPECT_EQ(record->fields()[1].key, "a" + kFFFD);
    EXPECT_EQ(as_number(record->get("caf\xC3\xA9"))->int_value(), 1);
    archive = archive_root(root.value());
  }
}

}  // namespace
}  // namespace orvia

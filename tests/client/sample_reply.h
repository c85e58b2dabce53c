// A reply as the service sends it, built from generic records with the import's class names and keys:
// two accounts that share one album tree.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "platform/keyed_archive.h"
#include "platform/value.h"

namespace orvia::test {

inline Ref<GenericRecord> record(std::vector<std::string> chain,
                                 std::vector<std::pair<std::string, Ref<Object>>> fields) {
  auto r = make<GenericRecord>(std::move(chain));
  for (auto& [key, value] : fields) {
    const Number* n = as_number(value.get());
    const bool is_inline = n && !n->is_real();  // integers and booleans are written in place
    r->mutable_fields().push_back({key, value, is_inline});
  }
  return r;
}

inline Ref<GenericRecord> node(const char* cls, std::int64_t type,
                               std::vector<std::pair<std::string, Ref<Object>>> fields, bool is_root = false) {
  std::vector<std::pair<std::string, Ref<Object>>> all = {
      {"identifier", nullptr}, {"type", num(type)}, {"ignore", boolean(false)}, {"isRoot", boolean(is_root)}};
  for (auto& f : fields) all.push_back(std::move(f));
  return record({cls, "MQImporterNode", "NSObject"}, std::move(all));
}

inline Ref<GenericRecord> folder(const char* title, std::vector<Ref<Object>> children, std::int64_t contents,
                                 bool is_root = false) {
  return node("MQImporterNodeFolder", 0,
              {{"title", title ? Ref<Object>(str(title)) : nullptr},
               {"children", make<Array>(std::move(children), true)},
               {"contentsType", num(contents)}},
              is_root);
}

inline Ref<GenericRecord> tag(const char* name, std::int64_t count) {
  return node("MQImporterNodeTag", 1, {{"tagCount", num(count)}, {"tagName", str(name)}});
}

// A media record as the reply carries it: one user dictionary under two keys.
inline Ref<Dictionary> sample_media(const char* id) {
  auto user = mutable_dict({{"pk", str("4021")}, {"full_name", str("Ana Sá")}, {"is_private", boolean(false)}});
  auto candidates = array({mutable_dict({{"width", num(640)}, {"url", str("https://img.example/s.jpg")}})});
  return mutable_dict({{"taken_at", num(1400000000)}, {"id", str(id)}, {"image_versions2", mutable_dict({{"candidates", candidates}})},
                       {"user", user}, {"caption", mutable_dict({{"text", str("Alfama ☀")}, {"user", user}})},
                       {"has_liked", boolean(true)}, {"likers", mutable_array()}});
}

inline Ref<Array> sample_results() {
  auto album = node("MQImporterNodeAlbum", 2, {{"albumName", str("Summer 2013")}, {"items", array({sample_media("m1"), sample_media("m2")})}});
  auto albums = folder(nullptr, {folder("Holidays", {album}, 2)}, 2, true);
  auto tags = folder(nullptr, {folder("Travel", {tag("beach", 12), tag("sunset", 3)}, 1), tag("food", 7)}, 1, true);
  auto lisboa = node("MQImporterNodeLocation", 3, {{"latitude", real(38.7223)}, {"longitude", real(-9.1393)}, {"name", str("Lisboa")}});
  auto bob = node("MQImporterNodeFriend", 4,
                  {{"mediaCount", num(5000000000LL)}, {"added", date(410000000.125)}, {"imageURL", str("https://img.example/bob.jpg")},
                   {"username", str("bob")}, {"uid", str("42")}});
  auto spam = node("MQImporterNodeBlacklist", 5, {{"uid", str("66")}, {"username", str("spam")}});
  auto stats = node("MQImporterNodeStatistics", 6, {{"path", str("/home/jane/stats/1001.db")}}, true);
  auto account = [](const char* uid, const char* picture, const char* name) {
    return record({"MQImporterAccount", "NSObject"},
                  {{"uid", str(uid)}, {"imageURL", picture ? Ref<Object>(str(picture)) : nullptr}, {"username", str(name)}});
  };
  // Both results hold the same album tree.
  auto result = [&albums](Ref<GenericRecord> who, Ref<Object> tag_tree, Ref<Object> location_tree, Ref<Object> friend_tree,
                          Ref<Object> path) {
    return record({"MQImporterNodeResult", "NSObject"},
                  {{"account", who}, {"tags", tag_tree}, {"locations", location_tree}, {"albums", albums},
                   {"friends", friend_tree}, {"statistics", path}, {"ignore", boolean(false)}});
  };
  return array({result(account("1001", "https://img.example/jane.jpg", "jane"), tags, folder(nullptr, {lisboa}, 3, true),
                       folder(nullptr, {bob}, 4, true), stats),
                result(account("1002", nullptr, "max"), nullptr, nullptr, folder(nullptr, {spam}, 5, true), nullptr)});
}

inline const char* sample_report() {
  return "Orvia 4 import: 2 accounts\n"
         "\n"
         "Account 1: jane (user id 1001)\n"
         "  picture: https://img.example/jane.jpg\n"
         "  statistics: /home/jane/stats/1001.db\n"
         "  tags: 1 folder, 3 tags\n"
         "    Travel/ (2 entries)\n"
         "      #beach (count 12)\n"
         "      #sunset (count 3)\n"
         "    #food (count 7)\n"
         "  locations: 0 folders, 1 location\n"
         "    Lisboa (38.7223, -9.1393)\n"
         "  albums: 1 folder, 1 album, 2 album items\n"
         "    Holidays/ (1 entry)\n"
         "      Summer 2013 (2 items)\n"
         "  friends: 0 folders, 1 friend\n"
         "    @bob (uid 42, 5000000000 media)\n"
         "\n"
         "Account 2: max (user id 1002)\n"
         "  picture: none\n"
         "  statistics: none\n"
         "  tags: none\n"
         "  locations: none\n"
         "  albums: 1 folder, 1 album, 2 album items\n"
         "    Holidays/ (1 entry)\n"
         "      Summer 2013 (2 items)\n"
         "  friends: 0 folders, 1 blocked user\n"
         "    spam (uid 66)\n";
}

}  // namespace orvia::test

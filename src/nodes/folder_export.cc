#include "nodes/folder_export.h"

#include <algorithm>
#include <unordered_set>
#include <utility>
#include <vector>

#include "nodes/node_builders.h"
#include "platform/log.h"

namespace orvia {
namespace {

struct BaseFolder {
  std::string_view identifier;
  std::string_view field;
};
constexpr BaseFolder kVisitOrder[] = {
    {kFolderTagsIdentifier, kEncodeKeyTags},
    {kFolderAlbumsIdentifier, kEncodeKeyAlbums},
    {kFolderFavFriendIdentifier, kEncodeKeyFriends},
    {kFolderLocationsIdentifier, kEncodeKeyLocations},
};

// The children of an item sorted by title. Equal titles keep their stored order; children without a
// title (or with one that is not text) come last, in stored order — our choice.
std::vector<OutlineFolderItem*> sorted_children(const OutlineFolderItem& item) {
  std::vector<OutlineFolderItem*> kids = item.childItems();
  std::stable_sort(kids.begin(), kids.end(), [](const OutlineFolderItem* a, const OutlineFolderItem* b) {
    const String* ta = as_string(a->title.get());
    const String* tb = as_string(b->title.get());
    if (!ta || !tb) return ta != nullptr && tb == nullptr;
    return compare_plain(ta->str(), tb->str()) < 0;
  });
  return kids;
}

}  // namespace

Ref<MQImporterNodeFolder> folderTreeFor(const OutlineFolderItem& item, std::string_view category,
                                        MQImporterContext& context) {
  struct Frame {
    Ref<MQImporterNodeFolder> node;
    std::vector<OutlineFolderItem*> children;
    std::size_t next = 0;
  };
  Ref<MQImporterNodeFolder> top = folderNode(item, category, context);
  // Each folder item is expanded once: a decoded tree whose children lists loop back to an ancestor or
  // share a sub-folder (only a damaged archive has them) would otherwise never end, or grow
  // exponentially. Our choice: such a repeated folder is left out like an entry without node.
  std::unordered_set<const OutlineFolderItem*> expanded = {&item};
  std::vector<Frame> stack;
  stack.push_back(Frame{top, sorted_children(item)});
  while (!stack.empty()) {
    Frame& f = stack.back();
    if (f.next == f.children.size()) {
      stack.pop_back();
      continue;
    }
    OutlineFolderItem* child = f.children[f.next++];
    if (child->folder) {
      if (!expanded.insert(child).second) {
        NSLog("invalid imported node for %@ in %@", child->description(), category);
        continue;
      }
      Ref<MQImporterNodeFolder> sub = folderNode(*child, category, context);
      f.node->appendChild(sub);
      stack.push_back(Frame{sub, sorted_children(*child)});  // f is not used after this
      continue;
    }
    Ref<MQImporterNode> node = nodeFromItem(*child, category, context);
    if (!node) {
      NSLog("invalid imported node for %@ in %@", child->description(), category);
      continue;
    }
    f.node->appendChild(std::move(node));
  }
  return top;
}

Ref<MQImporterNodeResult> folderTreeWithContext(const OutlineFolderModel& model, MQImporterContext& context) {
  auto result = make<MQImporterNodeResult>();
  for (const BaseFolder& base : kVisitOrder) {
    Ref<OutlineFolderItem> item = model.itemForIdentifier(base.identifier);
    if (!item) {
      NSLog("Unknown item %@", base.identifier);
      continue;
    }
    Ref<MQImporterNodeFolder> root = folderTreeFor(*item, base.identifier, context);
    root->isRoot = true;
    root->identifier = str(base.identifier);
    if (Ref<Array> unfiled = nonFoldarizedItemsInCategory(base.identifier, context, model)) {
      for (const Ref<Object>& node : unfiled->items())
        root->appendChild(Ref<MQImporterNode>(static_cast<MQImporterNode*>(node.get())));
    }
    result->setValueForKey(base.field, root);
  }
  return result;
}

}  // namespace orvia

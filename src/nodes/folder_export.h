// The export of a loaded sidebar model into the category trees of one import result: for each base
// folder the model holds, a root folder node whose content is sorted by title at every level,
// followed by the favourites of that category that the user never filed.
#pragma once

#include <string_view>

#include "nodes/importer_context.h"
#include "outline/outline_folder_model.h"
#include "records/records.h"

namespace orvia {

// folderTreeWithContext: a new result with its category fields set where the model has them.
Ref<MQImporterNodeResult> folderTreeWithContext(const OutlineFolderModel& model, MQImporterContext& context);

// folderTreeFor:inCategory:withContext: the folder node for `item` and everything below it. Walks the
// children lists with an explicit stack, so a tree of any depth exports.
Ref<MQImporterNodeFolder> folderTreeFor(const OutlineFolderItem& item, std::string_view category,
                                        MQImporterContext& context);

}  // namespace orvia

// Description texts of values as Foundation prints them for "%@": strings as they are; numbers in
// decimal (booleans 1/0, reals as %.16g); dates "2014-01-06 21:38:06 +0000"; NSNull "<null>"; data
// "<5431c046 d30e7f32>"; arrays "(\n    a,\n    b\n)"; dictionaries "{\n    key = value;\n}" with
// string keys sorted, nested containers indented, and strings quoted unless they are plain
// alphanumeric ASCII. Records print their own description (default "<ClassName: 0x...>").
// Iterative: nesting of any depth prints without recursion; a container met again inside itself
// prints as its address form.
#pragma once

#include <string>

#include "platform/object.h"

namespace orvia {

std::string description(const Object* obj);

}  // namespace orvia

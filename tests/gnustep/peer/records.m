// The client's copies of the reply records and the legacy sidebar item, archived from their key
// lists. Each class derives from NSObject or from MQImporterNode only, so that the "$classes" chains
// GNUstep writes are the client's (["MQImporterNodeFolder", "MQImporterNode", "NSObject"]).
#import "peer.h"

#include <string.h>

// Own keys of each class in the order the client encodes them. "parent" is written in full.
static const char *kOwnKeys[][2] = {
    {"MQImporterNode", "identifier:o type:i ignore:b isRoot:b"},
    {"MQImporterNodeFolder", "title:o children:o contentsType:i"},
    {"MQImporterNodeTag", "tagCount:i tagName:o"},
    {"MQImporterNodeLocation", "latitude:o longitude:o name:o"},
    {"MQImporterNodeAlbum", "albumName:o items:o"},
    {"MQImporterNodeFriend", "mediaCount:i added:o imageURL:o username:o uid:o"},
    {"MQImporterNodeBlacklist", "uid:o username:o"},
    {"MQImporterNodeStatistics", "path:o"},
    {"MQImporterNodeResult", "account:o tags:o locations:o albums:o friends:o statistics:o ignore:b"},
    {"MQImporterAccount", "uid:o imageURL:o username:o"},
    {"OutlineFolderItem", "title:o identifier:o parent:o children:o type:o folder:b expanded:b level:i"},
};

void PeerFail(NSString *format, ...) {
  va_list ap;
  va_start(ap, format);
  NSString *msg = [[[NSString alloc] initWithFormat: format arguments: ap] autorelease];
  va_end(ap);
  [NSException raise: NSInvalidArgumentException format: @"%@", msg];
}

NSArray *PeerKeys(Class cls) {
  NSMutableArray *keys = [NSMutableArray array];
  for (; cls != Nil; cls = [cls superclass]) {
    for (unsigned i = 0; i < sizeof kOwnKeys / sizeof *kOwnKeys; i++) {
      if (strcmp(kOwnKeys[i][0], [NSStringFromClass(cls) UTF8String]) != 0) continue;
      NSArray *own = [[NSString stringWithUTF8String: kOwnKeys[i][1]] componentsSeparatedByString: @" "];
      [keys replaceObjectsInRange: NSMakeRange(0, 0) withObjectsFromArray: own];
    }
  }
  return keys;
}

id PeerValueOfKind(unichar kind, id v) {
  if (kind == 'i') return [NSNumber numberWithLongLong: [v longLongValue]];
  if (kind == 'b') return [NSNumber numberWithBool: [v boolValue]];
  if (kind == 'd') return [NSNumber numberWithDouble: [v doubleValue]];
  return v;
}

static void EncodeKeys(id record, NSCoder *coder) {
  for (NSString *k in PeerKeys([record class])) {
    NSString *key = PeerKeyName(k);
    id v = [[record peerValues] objectForKey: key];
    switch (PeerKeyKind(k)) {
      case 'o': [coder encodeObject: v forKey: key]; break;
      case 'i': [coder encodeInt64: (int64_t)[v longLongValue] forKey: key]; break;
      case 'b': [coder encodeBool: [v boolValue] forKey: key]; break;
      case 'd': [coder encodeDouble: [v doubleValue] forKey: key]; break;
    }
  }
}

// An absent key reads as nil, 0 or NO.
static void DecodeKeys(id record, NSCoder *coder) {
  for (NSString *k in PeerKeys([record class])) {
    NSString *key = PeerKeyName(k);
    id v = nil;
    switch (PeerKeyKind(k)) {
      case 'o': v = [coder decodeObjectForKey: key]; break;
      case 'i': v = [NSNumber numberWithLongLong: (long long)[coder decodeInt64ForKey: key]]; break;
      case 'b': v = [NSNumber numberWithBool: [coder decodeBoolForKey: key]]; break;
      case 'd': v = [NSNumber numberWithDouble: [coder decodeDoubleForKey: key]]; break;
    }
    if (v != nil) [[record peerValues] setObject: v forKey: key];
  }
}

// A class at the top of a record family holds the values; its subclasses only add keys.
#define PEER_ROOT_RECORD(NAME)                                                            \
  @interface NAME : NSObject <NSCoding, PeerRecord> {                                     \
    NSMutableDictionary *_values;                                                         \
  }                                                                                       \
  @end                                                                                    \
  @implementation NAME                                                                    \
  -(id)init {                                                                             \
    if ((self = [super init]) != nil) _values = [NSMutableDictionary new];                \
    return self;                                                                          \
  }                                                                                       \
  -(void)dealloc {                                                                        \
    [_values release];                                                                    \
    [super dealloc];                                                                      \
  }                                                                                       \
  -(NSMutableDictionary *)peerValues { return _values; }                                  \
  -(void)encodeWithCoder: (NSCoder *)coder { EncodeKeys(self, coder); }                   \
  -(id)initWithCoder: (NSCoder *)coder {                                                  \
    if ((self = [self init]) != nil) DecodeKeys(self, coder);                             \
    return self;                                                                          \
  }                                                                                       \
  @end
#define PEER_SUBCLASS_RECORD(NAME) @interface NAME : MQImporterNode @end @implementation NAME @end

PEER_ROOT_RECORD(MQImporterNode)
PEER_ROOT_RECORD(MQImporterNodeResult)
PEER_ROOT_RECORD(MQImporterAccount)
PEER_ROOT_RECORD(OutlineFolderItem)
PEER_SUBCLASS_RECORD(MQImporterNodeFolder)
PEER_SUBCLASS_RECORD(MQImporterNodeTag)
PEER_SUBCLASS_RECORD(MQImporterNodeLocation)
PEER_SUBCLASS_RECORD(MQImporterNodeAlbum)
PEER_SUBCLASS_RECORD(MQImporterNodeFriend)
PEER_SUBCLASS_RECORD(MQImporterNodeBlacklist)
PEER_SUBCLASS_RECORD(MQImporterNodeStatistics)

@implementation PeerArray
- (id) initWithCoder: (NSCoder *)coder {
  NSArray *items = nil;
  if ([coder isKindOfClass: [NSKeyedUnarchiver class]]) {
    items = [(NSKeyedUnarchiver *)coder _decodeArrayOfObjectsForKey: @"NS.objects"];
  }
  _items = [[NSArray alloc] initWithArray: items != nil ? items : [NSArray array]];
  return self;
}
- (void) peerSetItems: (NSArray *)items {
  NSArray *old = _items;
  _items = [items copy];
  [old release];
}
- (NSUInteger) count { return [_items count]; }
- (id) objectAtIndex: (NSUInteger)i { return [_items objectAtIndex: i]; }
- (Class) classForKeyedArchiver { return [NSArray class]; }
- (Class) classForCoder { return [NSArray class]; }
- (void) dealloc {
  // A self-holding array is never freed: the process ends first.
  [_items release];
  [super dealloc];
}
@end

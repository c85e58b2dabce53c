// The client's copies of the reply records and the legacy sidebar item, written from their key tables.
// Each class derives from NSObject or from MQImporterNode only, so that the "$classes" chains GNUstep
// writes are the ones the client's classes have (["MQImporterNodeFolder", "MQImporterNode", "NSObject"]).
#import "peer.h"

void PeerFail(NSString *format, ...) {
  va_list ap;
  va_start(ap, format);
  NSString *msg = [[[NSString alloc] initWithFormat: format arguments: ap] autorelease];
  va_end(ap);
  [NSException raise: NSInvalidArgumentException format: @"%@", msg];
}

static void EncodeKeys(NSCoder *coder, const PeerKey *keys, NSDictionary *values) {
  for (; keys->key != NULL; keys++) {
    NSString *key = [NSString stringWithUTF8String: keys->key];
    id v = [values objectForKey: key];
    switch (keys->kind) {
      case 'o': [coder encodeObject: v forKey: key]; break;
      case 'i': [coder encodeInt64: (int64_t)[v longLongValue] forKey: key]; break;
      case 'b': [coder encodeBool: [v boolValue] forKey: key]; break;
      case 'd': [coder encodeDouble: [v doubleValue] forKey: key]; break;
    }
  }
}

// An absent key reads as nil, 0 or NO, which the values then hold (nil by having no entry).
static void DecodeKeys(NSCoder *coder, const PeerKey *keys, NSMutableDictionary *values) {
  for (; keys->key != NULL; keys++) {
    NSString *key = [NSString stringWithUTF8String: keys->key];
    id v = nil;
    switch (keys->kind) {
      case 'o': v = [coder decodeObjectForKey: key]; break;
      case 'i': v = [NSNumber numberWithLongLong: (long long)[coder decodeInt64ForKey: key]]; break;
      case 'b': v = [NSNumber numberWithBool: [coder decodeBoolForKey: key]]; break;
      case 'd': v = [NSNumber numberWithDouble: [coder decodeDoubleForKey: key]]; break;
    }
    if (v != nil) [values setObject: v forKey: key];
    else [values removeObjectForKey: key];
  }
}

NSArray *PeerKeysOfClass(Class cls) {
  NSMutableArray *tables = [NSMutableArray array];
  const PeerKey *last = NULL;
  for (Class c = cls; c != Nil && [c respondsToSelector: @selector(peerOwnKeys)]; c = [c superclass]) {
    const PeerKey *t = [(id)c peerOwnKeys];
    if (t != last) [tables insertObject: [NSValue valueWithPointer: t] atIndex: 0];
    last = t;
  }
  NSMutableArray *keys = [NSMutableArray array];
  for (NSValue *v in tables) {
    for (const PeerKey *k = [v pointerValue]; k->key != NULL; k++) {
      [keys addObject: [NSString stringWithUTF8String: k->key]];
    }
  }
  return keys;
}

char PeerKindOfKey(Class cls, NSString *key) {
  const char *name = [key UTF8String];
  for (Class c = cls; c != Nil && [c respondsToSelector: @selector(peerOwnKeys)]; c = [c superclass]) {
    for (const PeerKey *k = [(id)c peerOwnKeys]; k->key != NULL; k++) {
      if (strcmp(k->key, name) == 0) return k->kind;
    }
  }
  return 0;
}

// A class at the top of a record family: plain creation, then its keys.
#define PEER_ROOT_RECORD(NAME, TABLE)                                                    \
  @implementation NAME                                                                   \
  +(const PeerKey *)peerOwnKeys { return TABLE; }                                        \
  -(id)init {                                                                            \
    if ((self = [super init]) != nil) _values = [NSMutableDictionary new];               \
    return self;                                                                         \
  }                                                                                      \
  -(void)dealloc {                                                                       \
    [_values release];                                                                   \
    [super dealloc];                                                                     \
  }                                                                                      \
  -(NSMutableDictionary *)peerValues { return _values; }                                 \
  -(void)encodeWithCoder: (NSCoder *)coder { EncodeKeys(coder, TABLE, _values); }        \
  -(id)initWithCoder: (NSCoder *)coder {                                                 \
    if ((self = [self init]) != nil) DecodeKeys(coder, TABLE, _values);                  \
    return self;                                                                         \
  }                                                                                      \
  @end

// A subclass: the superclass's keys first, then its own.
#define PEER_SUBCLASS_RECORD(NAME, TABLE)                                                \
  @implementation NAME                                                                   \
  +(const PeerKey *)peerOwnKeys { return TABLE; }                                        \
  -(void)encodeWithCoder: (NSCoder *)coder {                                             \
    [super encodeWithCoder: coder];                                                      \
    EncodeKeys(coder, TABLE, _values);                                                   \
  }                                                                                      \
  -(id)initWithCoder: (NSCoder *)coder {                                                 \
    if ((self = [super initWithCoder: coder]) != nil) DecodeKeys(coder, TABLE, _values); \
    return self;                                                                         \
  }                                                                                      \
  @end

@interface MQImporterNode : NSObject <NSCoding, PeerRecord> {
 @protected
  NSMutableDictionary *_values;
}
@end
@interface MQImporterNodeFolder : MQImporterNode @end
@interface MQImporterNodeTag : MQImporterNode @end
@interface MQImporterNodeLocation : MQImporterNode @end
@interface MQImporterNodeAlbum : MQImporterNode @end
@interface MQImporterNodeFriend : MQImporterNode @end
@interface MQImporterNodeBlacklist : MQImporterNode @end
@interface MQImporterNodeStatistics : MQImporterNode @end
@interface MQImporterNodeResult : NSObject <NSCoding, PeerRecord> {
  NSMutableDictionary *_values;
}
@end
@interface MQImporterAccount : NSObject <NSCoding, PeerRecord> {
  NSMutableDictionary *_values;
}
@end
@interface OutlineFolderItem : NSObject <NSCoding, PeerRecord> {
  NSMutableDictionary *_values;
}
@end

static const PeerKey kNodeKeys[] = {{"identifier", 'o'}, {"type", 'i'}, {"ignore", 'b'}, {"isRoot", 'b'}, {NULL, 0}};
static const PeerKey kFolderKeys[] = {{"title", 'o'}, {"children", 'o'}, {"contentsType", 'i'}, {NULL, 0}};
static const PeerKey kTagKeys[] = {{"tagCount", 'i'}, {"tagName", 'o'}, {NULL, 0}};
static const PeerKey kLocationKeys[] = {{"latitude", 'o'}, {"longitude", 'o'}, {"name", 'o'}, {NULL, 0}};
static const PeerKey kAlbumKeys[] = {{"albumName", 'o'}, {"items", 'o'}, {NULL, 0}};
static const PeerKey kFriendKeys[] = {{"mediaCount", 'i'}, {"added", 'o'}, {"imageURL", 'o'},
                                      {"username", 'o'},   {"uid", 'o'},   {NULL, 0}};
static const PeerKey kBlacklistKeys[] = {{"uid", 'o'}, {"username", 'o'}, {NULL, 0}};
static const PeerKey kStatisticsKeys[] = {{"path", 'o'}, {NULL, 0}};
static const PeerKey kResultKeys[] = {{"account", 'o'}, {"tags", 'o'},       {"locations", 'o'}, {"albums", 'o'},
                                      {"friends", 'o'}, {"statistics", 'o'}, {"ignore", 'b'},    {NULL, 0}};
static const PeerKey kAccountKeys[] = {{"uid", 'o'}, {"imageURL", 'o'}, {"username", 'o'}, {NULL, 0}};
// "parent" is written in full (encodeObject:, not encodeConditionalObject:).
static const PeerKey kOutlineItemKeys[] = {{"title", 'o'},  {"identifier", 'o'}, {"parent", 'o'},
                                           {"children", 'o'}, {"type", 'o'},     {"folder", 'b'},
                                           {"expanded", 'b'}, {"level", 'i'},    {NULL, 0}};

PEER_ROOT_RECORD(MQImporterNode, kNodeKeys)
PEER_SUBCLASS_RECORD(MQImporterNodeFolder, kFolderKeys)
PEER_SUBCLASS_RECORD(MQImporterNodeTag, kTagKeys)
PEER_SUBCLASS_RECORD(MQImporterNodeLocation, kLocationKeys)
PEER_SUBCLASS_RECORD(MQImporterNodeAlbum, kAlbumKeys)
PEER_SUBCLASS_RECORD(MQImporterNodeFriend, kFriendKeys)
PEER_SUBCLASS_RECORD(MQImporterNodeBlacklist, kBlacklistKeys)
PEER_SUBCLASS_RECORD(MQImporterNodeStatistics, kStatisticsKeys)
PEER_ROOT_RECORD(MQImporterNodeResult, kResultKeys)
PEER_ROOT_RECORD(MQImporterAccount, kAccountKeys)
PEER_ROOT_RECORD(OutlineFolderItem, kOutlineItemKeys)

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

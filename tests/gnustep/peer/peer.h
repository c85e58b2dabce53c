// gnustep-peer: GNUstep's keyed archiver and unarchiver as an independent reader and writer of the
// archives that Orvia4Importer exchanges with its client. Manual retain/release, GNU runtime.
//
// The JSON form of an object graph (the same for "decode" output and "encode" input):
//   nil                    null
//   NSString               "text"                    NSMutableString  {"$mstring": "text"}
//   NSNumber               true / false (boolean class), 42 (integer), {"$real": 1.5 | "nan" | "inf" | "-inf"}
//   NSDate                 {"$date": seconds since 2001-01-01 UTC}
//   NSData                 {"$data": "00ff"}         NSMutableData    {"$mdata": "00ff"}
//   NSNull                 {"$null": true}
//   arrays and sets        {"$id": n, "$class": "NSArray" | "NSMutableArray" | "NSSet" | "NSMutableSet",
//                           "$items": [...]}
//   dictionaries           {"$id": n, "$class": "NSDictionary" | "NSMutableDictionary",
//                           "$entries": {"key": value, ...}}        when every key is a string
//                           "$pairs": [[key, value], ...]           otherwise, sorted by the key's JSON text
//   records                {"$id": n, "$class": "OutlineFolderItem", "title": ..., ...} one member per archive key
//   an object seen before  {"$ref": n}
// Containers and records carry identity: ids count from 1 in depth-first order of first visit, children
// in array order, dictionary entries and record keys in byte order of their UTF-8 keys.
#import <Foundation/Foundation.h>

// One archive key of a record class and the kind of its value: 'o' object, 'i' 64-bit integer,
// 'b' boolean, 'd' double.
typedef struct {
  const char *key;
  char kind;
} PeerKey;

// The record classes of the reply and of the sidebar. Each keeps its archived fields by key and archives
// them from its own key table, after its superclass's keys.
@protocol PeerRecord
+ (const PeerKey *) peerOwnKeys;  // terminated by {NULL, 0}
- (NSMutableDictionary *) peerValues;
@end

// Every key of a record class, superclass keys first.
NSArray *PeerKeysOfClass(Class cls);           // of NSString
char PeerKindOfKey(Class cls, NSString *key);  // 0 when the class has no such key

// An immutable array that can be filled after it was made, so that it can take part in cycles (an array
// holding itself). Archived under the name NSArray; unarchiving maps NSArray to it, because GNUstep
// would otherwise decode every NSArray as a mutable array.
@interface PeerArray : NSArray {
  NSArray *_items;
}
- (void) peerSetItems: (NSArray *)items;
@end

// Raises NSInvalidArgumentException with the formatted message.
void PeerFail(NSString *format, ...);

// JSON text -> property-list-like tree: NSMutableDictionary, NSMutableArray, NSString, NSNull and
// NSNumber (booleans of the boolean class, integers of type long long / unsigned long long, reals of
// type double). Raises on malformed text.
id PeerParseJSON(NSData *text);

// The JSON form of the graph below root (see the top of this file).
NSData *PeerDumpGraph(id root);

// The object graph that a JSON form describes.
id PeerBuildGraph(id json);

BOOL PeerIsBoolean(NSNumber *n);

// gnustep-peer: GNUstep's keyed archiver and unarchiver as an independent reader and writer of the
// archives that Orvia4Importer exchanges with its client. Manual retain/release, GNU runtime.
//
// Graphs travel as JSON (read and written by NSJSONSerialization) in the form that
// tests/support/gnustep_peer.h describes, with every scalar as tagged text so that no reader turns an
// integer into a double: {"$int": "42"}, {"$bool": "true"}, {"$real": "1.5"}, {"$date": "0.25"},
// {"$null": "true"}, {"$data": "00ff"}, {"$mdata": ""}, {"$mstring": "text"}; strings stay strings.
#import <Foundation/Foundation.h>

// The record classes of the reply and of the sidebar keep their archived fields by key.
@protocol PeerRecord
- (NSMutableDictionary *) peerValues;
@end

// Every archive key of a record class, superclass keys first, as "key:kind" (kind 'o' object,
// 'i' 64-bit integer, 'b' boolean, 'd' double); empty for other classes.
NSArray *PeerKeys(Class cls);
static inline NSString *PeerKeyName(NSString *k) { return [k substringToIndex: [k length] - 2]; }
static inline unichar PeerKeyKind(NSString *k) { return [k characterAtIndex: [k length] - 1]; }
// `v` as a value of that kind (nil, 0 or NO when absent).
id PeerValueOfKind(unichar kind, id v);

// An immutable array that can be filled after it was made, so that it can take part in cycles.
// Archived as NSArray; unarchiving maps NSArray to it (GNUstep would make every NSArray mutable).
@interface PeerArray : NSArray {
  NSArray *_items;
}
- (void) peerSetItems: (NSArray *)items;
@end

void PeerFail(NSString *format, ...);
BOOL PeerIsBoolean(NSNumber *n);
// The tagged JSON tree of the graph below root, and the graph that such a tree describes.
id PeerDumpGraph(id root);
id PeerBuildGraph(id json);

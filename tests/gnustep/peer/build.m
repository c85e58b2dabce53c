// The object graph that a tagged JSON tree describes (see peer.h). Mutable containers, PeerArray and records are remembered before
// their contents are made, so they can take part in cycles; members are made in the dump's order
// (entries and record keys sorted), so a "$ref" always follows the object it names.
#import "peer.h"

#include <limits.h>
#include <stdlib.h>

static id Tagged(id json, NSString *tag) {
  return [json isKindOfClass: [NSDictionary class]] ? [json objectForKey: tag] : nil;
}

static NSData *DataOfHex(NSString *hex) {
  NSMutableData *d = [NSMutableData dataWithLength: [hex length] / 2];
  const char *s = [hex UTF8String];
  for (NSUInteger i = 0; i < [d length]; i++) {
    unsigned byte;
    if (sscanf(s + 2 * i, "%2x", &byte) != 1) PeerFail(@"bad hex %@", hex);
    ((unsigned char *)[d mutableBytes])[i] = (unsigned char)byte;
  }
  return d;
}

static NSNumber *Integer(NSString *text) {
  const char *s = [text UTF8String];
  if (s[0] == '-') return [NSNumber numberWithLongLong: strtoll(s, NULL, 10)];
  unsigned long long v = strtoull(s, NULL, 10);
  if (v <= (unsigned long long)LLONG_MAX) return [NSNumber numberWithLongLong: (long long)v];
  return [NSNumber numberWithUnsignedLongLong: v];
}

@interface GraphBuilder : NSObject {
 @public
  NSMutableDictionary *_built;  // "$id" -> object
}
- (id) build: (id)json;
@end

@implementation GraphBuilder

- (id) item: (id)json {
  id v = [self build: json];
  if (v == nil) PeerFail(@"null inside a container");
  return v;
}

- (NSArray *) items: (id)list {
  NSMutableArray *out = [NSMutableArray array];
  for (id j in list) [out addObject: [self item: j]];
  return out;
}

- (void) fill: (NSMutableDictionary *)dict from: (id)json {
  NSDictionary *entries = [json objectForKey: @"$entries"];
  for (NSString *k in [[entries allKeys] sortedArrayUsingSelector: @selector(compare:)]) {
    [dict setObject: [self item: [entries objectForKey: k]] forKey: [NSString stringWithString: k]];
  }
  for (NSArray *pair in [json objectForKey: @"$pairs"]) {
    NSArray *kv = [self items: pair];
    [dict setObject: [kv lastObject] forKey: [kv objectAtIndex: 0]];
  }
}

- (id) container: (id)json {
  NSString *cls = [json objectForKey: @"$class"];
  id ident = [json objectForKey: @"$id"], made = nil;
  if ([cls isEqual: @"NSDictionary"] || [cls isEqual: @"NSSet"]) {
    NSMutableDictionary *d = [NSMutableDictionary dictionary];
    [self fill: d from: json];
    made = [cls isEqual: @"NSSet"] ? [NSSet setWithArray: [self items: [json objectForKey: @"$items"]]]
                                   : [NSDictionary dictionaryWithDictionary: d];
    [_built setObject: made forKey: ident];
    return made;
  }
  Class record = NSClassFromString(cls);
  if ([cls isEqual: @"NSMutableArray"]) made = [NSMutableArray array];
  else if ([cls isEqual: @"NSArray"]) made = [[PeerArray new] autorelease];
  else if ([cls isEqual: @"NSMutableDictionary"]) made = [NSMutableDictionary dictionary];
  else if ([cls isEqual: @"NSMutableSet"]) made = [NSMutableSet set];
  else if ([record conformsToProtocol: @protocol(PeerRecord)]) made = [[record new] autorelease];
  else PeerFail(@"unknown class %@", cls);
  [_built setObject: made forKey: ident];
  if ([made isKindOfClass: [PeerArray class]]) [made peerSetItems: [self items: [json objectForKey: @"$items"]]];
  else if ([made isKindOfClass: [NSArray class]] || [made isKindOfClass: [NSSet class]])
    [made addObjectsFromArray: [self items: [json objectForKey: @"$items"]]];
  else if ([made isKindOfClass: [NSDictionary class]]) [self fill: made from: json];
  else {
    NSMutableDictionary *kinds = [NSMutableDictionary dictionary];
    for (NSString *k in PeerKeys(record)) [kinds setObject: k forKey: PeerKeyName(k)];
    for (NSString *key in [[json allKeys] sortedArrayUsingSelector: @selector(compare:)]) {
      if ([key hasPrefix: @"$"]) continue;
      NSString *k = [kinds objectForKey: key];
      if (k == nil) PeerFail(@"%@ has no key %@", cls, key);
      id v = PeerValueOfKind(PeerKeyKind(k), [self build: [json objectForKey: key]]);
      if (v != nil) [[made peerValues] setObject: v forKey: key];
    }
  }
  return made;
}

- (id) build: (id)json {
  id v;
  if ([json isKindOfClass: [NSNull class]]) return nil;
  if ([json isKindOfClass: [NSString class]]) return [NSString stringWithString: json];
  if ((v = Tagged(json, @"$ref")) != nil) {
    if ([_built objectForKey: v] == nil) PeerFail(@"$ref %@ before its object", v);
    return [_built objectForKey: v];
  }
  if ([json objectForKey: @"$class"] != nil) return [self container: json];
  if ((v = Tagged(json, @"$int")) != nil) return Integer(v);
  if ((v = Tagged(json, @"$bool")) != nil) return [NSNumber numberWithBool: [v isEqual: @"true"]];
  if ((v = Tagged(json, @"$real")) != nil) return [NSNumber numberWithDouble: strtod([v UTF8String], NULL)];
  if ((v = Tagged(json, @"$date")) != nil)
    return [NSDate dateWithTimeIntervalSinceReferenceDate: strtod([v UTF8String], NULL)];
  if ((v = Tagged(json, @"$data")) != nil) return [NSData dataWithData: DataOfHex(v)];
  if ((v = Tagged(json, @"$mdata")) != nil) return DataOfHex(v);
  if ((v = Tagged(json, @"$mstring")) != nil) return [NSMutableString stringWithString: v];
  if (Tagged(json, @"$null") != nil) return [NSNull null];
  PeerFail(@"cannot build %@", json);
  return nil;
}

@end

id PeerBuildGraph(id json) {
  GraphBuilder *b = [[GraphBuilder new] autorelease];
  b->_built = [NSMutableDictionary dictionary];
  return [b build: json];
}

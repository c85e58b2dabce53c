// The object graph that a JSON form describes (see peer.h). Besides the dump's own forms it accepts a
// bare JSON array as an NSArray and a bare JSON real as a real NSNumber.
//
// Mutable containers, PeerArray and records are made before their contents, so they can take part in
// cycles; NSDictionary and NSSet are made after theirs, and a cycle through one of them is an error.
#import "peer.h"

#include <math.h>
#include <string.h>

@interface GraphBuilder : NSObject {
  NSMutableDictionary *_defs;      // id -> the JSON object that carries it
  NSMutableDictionary *_built;     // id -> object
  NSMutableSet *_pending;          // ids of immutable containers being made
}
- (id) build: (id)json;
@end

static BOOL IsObject(id json) { return [json isKindOfClass: [NSDictionary class]]; }

static double RealOf(id v) {
  if ([v isKindOfClass: [NSString class]]) {
    if ([v isEqual: @"nan"]) return NAN;
    if ([v isEqual: @"inf"]) return INFINITY;
    if ([v isEqual: @"-inf"]) return -INFINITY;
    PeerFail(@"bad real %@", v);
  }
  if (![v isKindOfClass: [NSNumber class]] || PeerIsBoolean(v)) PeerFail(@"bad real %@", v);
  return [v doubleValue];
}

static NSData *DataOfHex(id v) {
  if (![v isKindOfClass: [NSString class]] || [v length] % 2 != 0) PeerFail(@"bad hex %@", v);
  const char *s = [v UTF8String];
  NSMutableData *d = [NSMutableData dataWithLength: [v length] / 2];
  unsigned char *p = [d mutableBytes];
  for (NSUInteger i = 0; i < [d length]; i++) {
    unsigned hi, lo;
    if (sscanf(s + 2 * i, "%1x%1x", &hi, &lo) != 2) PeerFail(@"bad hex %@", v);
    p[i] = (unsigned char)(hi << 4 | lo);
  }
  return d;
}

static NSNumber *NumberOf(NSNumber *n) {
  // A fresh NSNumber of the kind the JSON reader gave.
  if (PeerIsBoolean(n)) return [NSNumber numberWithBool: [n boolValue]];
  const char *type = [n objCType];
  if (type[0] == 'd' || type[0] == 'f') return [NSNumber numberWithDouble: [n doubleValue]];
  if (type[0] == 'Q' || type[0] == 'L') return [NSNumber numberWithUnsignedLongLong: [n unsignedLongLongValue]];
  return [NSNumber numberWithLongLong: [n longLongValue]];
}

@implementation GraphBuilder

- (id) initWithRoot: (id)json {
  if ((self = [super init]) != nil) {
    _defs = [NSMutableDictionary new];
    _built = [NSMutableDictionary new];
    _pending = [NSMutableSet new];
    // Collect every "$id" first, so that a "$ref" may come before its definition.
    NSMutableArray *todo = [NSMutableArray arrayWithObject: json];
    while ([todo count] > 0) {
      id j = [[[todo lastObject] retain] autorelease];
      [todo removeLastObject];
      if ([j isKindOfClass: [NSArray class]]) {
        [todo addObjectsFromArray: j];
      } else if (IsObject(j)) {
        id ident = [j objectForKey: @"$id"];
        if (ident != nil) {
          if ([_defs objectForKey: ident] != nil) PeerFail(@"$id %@ defined twice", ident);
          [_defs setObject: j forKey: ident];
        }
        [todo addObjectsFromArray: [j allValues]];
      }
    }
  }
  return self;
}

- (void) dealloc {
  [_defs release];
  [_built release];
  [_pending release];
  [super dealloc];
}

- (void) remember: (id)obj as: (id)ident {
  if (ident != nil) [_built setObject: obj forKey: ident];
}

- (id) item: (id)json {
  id v = [self build: json];
  if (v == nil) PeerFail(@"null inside a container");
  return v;
}

- (NSArray *) items: (id)json of: (id)owner {
  id list = [json objectForKey: @"$items"];
  if (list == nil) list = [NSArray array];
  if (![list isKindOfClass: [NSArray class]]) PeerFail(@"$items of %@ is no list", owner);
  NSMutableArray *out = [NSMutableArray array];
  for (id j in list) [out addObject: [self item: j]];
  return out;
}

- (void) fillDictionary: (NSMutableDictionary *)dict from: (id)json {
  id entries = [json objectForKey: @"$entries"];
  id pairs = [json objectForKey: @"$pairs"];
  if (entries != nil) {
    if (!IsObject(entries)) PeerFail(@"$entries is no object");
    for (NSString *k in [[entries allKeys] sortedArrayUsingSelector: @selector(compare:)]) {
      [dict setObject: [self item: [entries objectForKey: k]] forKey: [NSString stringWithString: k]];
    }
  }
  if (pairs != nil) {
    if (![pairs isKindOfClass: [NSArray class]]) PeerFail(@"$pairs is no list");
    for (id pair in pairs) {
      if (![pair isKindOfClass: [NSArray class]] || [pair count] != 2) PeerFail(@"bad pair %@", pair);
      id k = [self item: [pair objectAtIndex: 0]];
      [dict setObject: [self item: [pair objectAtIndex: 1]] forKey: k];
    }
  }
}

- (id) record: (id)json named: (NSString *)name ident: (id)ident {
  Class cls = NSClassFromString(name);
  if (cls == Nil || ![cls conformsToProtocol: @protocol(PeerRecord)]) PeerFail(@"unknown class %@", name);
  id rec = [[cls new] autorelease];
  [self remember: rec as: ident];
  NSMutableDictionary *values = [rec peerValues];
  for (NSString *key in json) {
    if ([key isEqual: @"$id"] || [key isEqual: @"$class"]) continue;
    char kind = PeerKindOfKey(cls, key);
    if (kind == 0) PeerFail(@"%@ has no key %@", name, key);
    id v = [self build: [json objectForKey: key]];
    if (kind == 'i') v = [NSNumber numberWithLongLong: [v longLongValue]];
    else if (kind == 'b') v = [NSNumber numberWithBool: [v boolValue]];
    else if (kind == 'd') v = [NSNumber numberWithDouble: [v doubleValue]];
    if (v != nil) [values setObject: v forKey: key];
  }
  return rec;
}

- (id) container: (id)json {
  NSString *cls = [json objectForKey: @"$class"];
  id ident = [json objectForKey: @"$id"];
  if ([cls isEqual: @"NSMutableArray"]) {
    NSMutableArray *a = [NSMutableArray array];
    [self remember: a as: ident];
    [a addObjectsFromArray: [self items: json of: cls]];
    return a;
  }
  if ([cls isEqual: @"NSArray"]) {
    PeerArray *a = [[PeerArray new] autorelease];
    [self remember: a as: ident];
    [a peerSetItems: [self items: json of: cls]];
    return a;
  }
  if ([cls isEqual: @"NSMutableDictionary"]) {
    NSMutableDictionary *d = [NSMutableDictionary dictionary];
    [self remember: d as: ident];
    [self fillDictionary: d from: json];
    return d;
  }
  if ([cls isEqual: @"NSMutableSet"]) {
    NSMutableSet *s = [NSMutableSet set];
    [self remember: s as: ident];
    [s addObjectsFromArray: [self items: json of: cls]];
    return s;
  }
  if ([cls isEqual: @"NSDictionary"] || [cls isEqual: @"NSSet"]) {
    if (ident != nil) [_pending addObject: ident];
    id made;
    if ([cls isEqual: @"NSSet"]) {
      made = [NSSet setWithArray: [self items: json of: cls]];
    } else {
      NSMutableDictionary *d = [NSMutableDictionary dictionary];
      [self fillDictionary: d from: json];
      made = [NSDictionary dictionaryWithDictionary: d];
    }
    if (ident != nil) [_pending removeObject: ident];
    [self remember: made as: ident];
    return made;
  }
  return [self record: json named: cls ident: ident];
}

- (id) build: (id)json {
  if ([json isKindOfClass: [NSNull class]]) return nil;
  if ([json isKindOfClass: [NSString class]]) return [NSString stringWithString: json];
  if ([json isKindOfClass: [NSNumber class]]) return NumberOf(json);
  if ([json isKindOfClass: [NSArray class]]) {
    PeerArray *a = [[PeerArray new] autorelease];
    NSMutableArray *items = [NSMutableArray array];
    for (id j in json) [items addObject: [self item: j]];
    [a peerSetItems: items];
    return a;
  }
  id v;
  if ((v = [json objectForKey: @"$ref"]) != nil) {
    id obj = [_built objectForKey: v];
    if (obj != nil) return obj;
    if ([_pending containsObject: v]) PeerFail(@"$ref %@: an NSDictionary or NSSet cannot be in a cycle", v);
    id def = [_defs objectForKey: v];
    if (def == nil) PeerFail(@"$ref %@ has no $id", v);
    return [self build: def];
  }
  id ident = [json objectForKey: @"$id"];
  if (ident != nil && [_built objectForKey: ident] != nil) return [_built objectForKey: ident];
  if ([json objectForKey: @"$class"] != nil) return [self container: json];
  if ((v = [json objectForKey: @"$real"]) != nil) return [NSNumber numberWithDouble: RealOf(v)];
  if ((v = [json objectForKey: @"$date"]) != nil) return [NSDate dateWithTimeIntervalSinceReferenceDate: RealOf(v)];
  if ((v = [json objectForKey: @"$data"]) != nil) return [NSData dataWithData: DataOfHex(v)];
  if ((v = [json objectForKey: @"$mdata"]) != nil) return [NSMutableData dataWithData: DataOfHex(v)];
  if ((v = [json objectForKey: @"$mstring"]) != nil) {
    if (![v isKindOfClass: [NSString class]]) PeerFail(@"$mstring is no string");
    return [NSMutableString stringWithString: v];
  }
  if ([json objectForKey: @"$null"] != nil) return [NSNull null];
  PeerFail(@"cannot build %@", json);
  return nil;
}

@end

id PeerBuildGraph(id json) {
  GraphBuilder *b = [[[GraphBuilder alloc] initWithRoot: json] autorelease];
  return [b build: json];
}

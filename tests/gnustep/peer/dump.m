// The tagged JSON tree of a decoded object graph (see peer.h): ids count from 1 in depth-first order
// of first visit, dictionary entries and record keys in sorted order.
#import "peer.h"

BOOL PeerIsBoolean(NSNumber *n) {
  // GNUstep's boolean NSNumber has objCType "C", like unsigned chars: only its class tells it apart.
  return [n isKindOfClass: [[NSNumber numberWithBool: YES] class]];
}

static id Tag(NSString *tag, NSString *text) { return [NSDictionary dictionaryWithObject: text forKey: tag]; }

static NSString *RealText(double d) { return [NSString stringWithFormat: @"%.17g", d]; }

static NSString *Hex(NSData *data) {
  NSMutableString *s = [NSMutableString string];
  for (NSUInteger i = 0; i < [data length]; i++) [s appendFormat: @"%02x", ((const unsigned char *)[data bytes])[i]];
  return s;
}

static NSInteger ByText(id a, id b, void *context) { return [[a description] compare: [b description]]; }

@interface GraphDumper : NSObject {
 @public
  NSMapTable *_ids;
  long _next;
}
- (id) dump: (id)o;
@end

@implementation GraphDumper

- (id) dump: (id)o {
  if (o == nil) return [NSNull null];
  if ([o isKindOfClass: [NSString class]]) return [o isKindOfClass: [NSMutableString class]] ? Tag(@"$mstring", o) : o;
  if ([o isKindOfClass: [NSNumber class]]) {
    char type = *[o objCType];
    if (PeerIsBoolean(o)) return Tag(@"$bool", [o boolValue] ? @"true" : @"false");
    if (type == 'd' || type == 'f') return Tag(@"$real", RealText([o doubleValue]));
    if (type == 'Q' || type == 'L') return Tag(@"$int", [NSString stringWithFormat: @"%llu", [o unsignedLongLongValue]]);
    return Tag(@"$int", [NSString stringWithFormat: @"%lld", [o longLongValue]]);
  }
  if ([o isKindOfClass: [NSDate class]]) return Tag(@"$date", RealText([o timeIntervalSinceReferenceDate]));
  if ([o isKindOfClass: [NSData class]]) return Tag([o isKindOfClass: [NSMutableData class]] ? @"$mdata" : @"$data", Hex(o));
  if ([o isKindOfClass: [NSNull class]]) return Tag(@"$null", @"true");
  BOOL list = [o isKindOfClass: [NSArray class]] || [o isKindOfClass: [NSSet class]];
  if (!list && ![o isKindOfClass: [NSDictionary class]] && ![o conformsToProtocol: @protocol(PeerRecord)])
    return Tag(@"$unknown", NSStringFromClass([o class]));  // nothing the reply or the sidebar holds
  long seen = (long)(intptr_t)NSMapGet(_ids, o);
  if (seen != 0) return [NSDictionary dictionaryWithObject: [NSNumber numberWithLong: seen] forKey: @"$ref"];
  NSMapInsert(_ids, o, (void *)(intptr_t)_next);
  NSMutableDictionary *out = [NSMutableDictionary dictionary];
  [out setObject: [NSNumber numberWithLong: _next++] forKey: @"$id"];
  [out setObject: NSStringFromClass([o classForKeyedArchiver]) forKey: @"$class"];  // as GNUstep archives it
  if (list) {  // set members in enumeration order: the tests' side sorts them
    NSArray *members = [o isKindOfClass: [NSSet class]] ? [o allObjects] : o;
    NSMutableArray *items = [NSMutableArray array];
    for (id item in members) [items addObject: [self dump: item]];
    [out setObject: items forKey: @"$items"];
  } else if ([o isKindOfClass: [NSDictionary class]]) {
    BOOL strings = YES;
    for (id k in o) strings = strings && [k isKindOfClass: [NSString class]];
    NSMutableDictionary *entries = [NSMutableDictionary dictionary];
    NSMutableArray *pairs = [NSMutableArray array];
    NSArray *keys = [[o allKeys] sortedArrayUsingFunction: ByText context: NULL];
    for (id k in keys) {
      if (strings) [entries setObject: [self dump: [o objectForKey: k]] forKey: k];
      else [pairs addObject: [NSArray arrayWithObjects: [self dump: k], [self dump: [o objectForKey: k]], nil]];
    }
    [out setObject: strings ? (id)entries : (id)pairs forKey: strings ? @"$entries" : @"$pairs"];
  } else {
    NSMutableDictionary *kinds = [NSMutableDictionary dictionary];
    for (NSString *k in PeerKeys([o class])) [kinds setObject: k forKey: PeerKeyName(k)];
    for (NSString *key in [[kinds allKeys] sortedArrayUsingSelector: @selector(compare:)]) {
      id v = [[o peerValues] objectForKey: key];
      [out setObject: [self dump: PeerValueOfKind(PeerKeyKind([kinds objectForKey: key]), v)] forKey: key];
    }
  }
  return out;
}

@end

id PeerDumpGraph(id root) {
  GraphDumper *d = [[GraphDumper new] autorelease];
  d->_ids = NSCreateMapTable(NSNonOwnedPointerMapKeyCallBacks, NSIntegerMapValueCallBacks, 0);
  d->_next = 1;
  return [d dump: root];
}

// The JSON form of a decoded object graph (see peer.h). The walk keeps its own stack, so a deep graph
// costs heap memory, not native stack.
#import "peer.h"

#include <math.h>
#include <stdio.h>
#include <string.h>

// Stands for nil among a frame's children (NSNull is a value of its own).
static id NilChild(void) {
  static id nilChild = nil;
  if (nilChild == nil) nilChild = [NSObject new];
  return nilChild;
}

BOOL PeerIsBoolean(NSNumber *n) {
  // GNUstep's boolean NSNumber has objCType "C", like unsigned chars: only its class tells it apart.
  static Class boolClass = Nil;
  if (boolClass == Nil) boolClass = [[NSNumber numberWithBool: YES] class];
  return [n isKindOfClass: boolClass];
}

static void Put(NSMutableData *out, const char *text) { [out appendBytes: text length: strlen(text)]; }

static void PutString(NSMutableData *out, NSString *s) {
  NSData *utf8 = [s dataUsingEncoding: NSUTF8StringEncoding allowLossyConversion: YES];
  const unsigned char *p = [utf8 bytes];
  NSUInteger n = [utf8 length];
  Put(out, "\"");
  for (NSUInteger i = 0; i < n; i++) {
    unsigned char c = p[i];
    if (c == '"') Put(out, "\\\"");
    else if (c == '\\') Put(out, "\\\\");
    else if (c < 0x20) {
      char esc[8];
      snprintf(esc, sizeof esc, "\\u%04x", c);
      Put(out, esc);
    } else {
      [out appendBytes: &c length: 1];
    }
  }
  Put(out, "\"");
}

// Always reads back as a real: "1.0", never "1".
static void PutReal(NSMutableData *out, double d) {
  if (isnan(d)) { Put(out, "\"nan\""); return; }
  if (isinf(d)) { Put(out, d > 0 ? "\"inf\"" : "\"-inf\""); return; }
  char buf[40];
  snprintf(buf, sizeof buf, "%.17g", d);
  Put(out, buf);
  if (strpbrk(buf, ".eE") == NULL) Put(out, ".0");
}

static void PutHex(NSMutableData *out, NSData *data) {
  static const char digits[] = "0123456789abcdef";
  const unsigned char *p = [data bytes];
  NSUInteger n = [data length];
  Put(out, "\"");
  for (NSUInteger i = 0; i < n; i++) {
    char pair[2] = {digits[p[i] >> 4], digits[p[i] & 15]};
    [out appendBytes: pair length: 2];
  }
  Put(out, "\"");
}

static BOOL IsContainer(id o) {
  return [o isKindOfClass: [NSArray class]] || [o isKindOfClass: [NSDictionary class]] ||
         [o isKindOfClass: [NSSet class]] || [o conformsToProtocol: @protocol(PeerRecord)];
}

// Writes a value without identity; NO for containers and records.
static BOOL PutLeaf(NSMutableData *out, id o) {
  if (o == NilChild()) {
    Put(out, "null");
  } else if ([o isKindOfClass: [NSString class]]) {
    BOOL isMutable = [o isKindOfClass: [NSMutableString class]];
    if (isMutable) Put(out, "{\"$mstring\":");
    PutString(out, o);
    if (isMutable) Put(out, "}");
  } else if ([o isKindOfClass: [NSNumber class]]) {
    const char *type = [o objCType];
    char buf[32];
    if (PeerIsBoolean(o)) {
      Put(out, [o boolValue] ? "true" : "false");
    } else if (type[0] == 'd' || type[0] == 'f') {
      Put(out, "{\"$real\":");
      PutReal(out, [o doubleValue]);
      Put(out, "}");
    } else if (type[0] == 'Q' || type[0] == 'L') {
      snprintf(buf, sizeof buf, "%llu", [o unsignedLongLongValue]);
      Put(out, buf);
    } else {
      snprintf(buf, sizeof buf, "%lld", [o longLongValue]);
      Put(out, buf);
    }
  } else if ([o isKindOfClass: [NSDate class]]) {
    Put(out, "{\"$date\":");
    PutReal(out, [o timeIntervalSinceReferenceDate]);
    Put(out, "}");
  } else if ([o isKindOfClass: [NSData class]]) {
    Put(out, [o isKindOfClass: [NSMutableData class]] ? "{\"$mdata\":" : "{\"$data\":");
    PutHex(out, o);
    Put(out, "}");
  } else if ([o isKindOfClass: [NSNull class]]) {
    Put(out, "{\"$null\":true}");
  } else if (IsContainer(o)) {
    return NO;
  } else {
    // Nothing the reply or the sidebar holds; shown so that a test failure names it.
    Put(out, "{\"$unknown\":");
    PutString(out, NSStringFromClass([o class]));
    Put(out, "}");
  }
  return YES;
}

static NSComparisonResult CompareUTF8(id a, id b, void *context) {
  int c = strcmp([a UTF8String], [b UTF8String]);
  return c < 0 ? NSOrderedAscending : c > 0 ? NSOrderedDescending : NSOrderedSame;
}

// The JSON text of a dictionary key that is not a string, for ordering "$pairs".
static NSString *KeyText(id key) {
  NSMutableData *buf = [NSMutableData data];
  if (!PutLeaf(buf, key)) return [key description];
  return [[[NSString alloc] initWithData: buf encoding: NSUTF8StringEncoding] autorelease];
}

@interface DumpFrame : NSObject {
 @public
  NSMutableArray *prefixes;  // text written before each child
  NSMutableArray *children;
  NSString *closing;
  NSUInteger next;
}
@end
@implementation DumpFrame
- (id) init {
  if ((self = [super init]) != nil) {
    prefixes = [NSMutableArray new];
    children = [NSMutableArray new];
  }
  return self;
}
- (void) add: (id)child after: (NSString *)prefix {
  [prefixes addObject: prefix];
  [children addObject: child != nil ? child : NilChild()];
}
- (void) dealloc {
  [prefixes release];
  [children release];
  [closing release];
  [super dealloc];
}
@end

static NSString *ContainerClassName(id o) {
  if ([o isKindOfClass: [PeerArray class]]) return @"NSArray";
  if ([o isKindOfClass: [NSMutableArray class]]) return @"NSMutableArray";
  if ([o isKindOfClass: [NSArray class]]) return @"NSArray";
  if ([o isKindOfClass: [NSMutableDictionary class]]) return @"NSMutableDictionary";
  if ([o isKindOfClass: [NSDictionary class]]) return @"NSDictionary";
  if ([o isKindOfClass: [NSMutableSet class]]) return @"NSMutableSet";
  if ([o isKindOfClass: [NSSet class]]) return @"NSSet";
  return NSStringFromClass([o class]);
}

// Writes the opening of a container or record and returns the frame of its children.
static DumpFrame *Open(NSMutableData *out, id o, long ident) {
  char buf[48];
  snprintf(buf, sizeof buf, "{\"$id\":%ld,\"$class\":", ident);
  Put(out, buf);
  PutString(out, ContainerClassName(o));
  DumpFrame *f = [[DumpFrame new] autorelease];
  if ([o isKindOfClass: [NSArray class]] || [o isKindOfClass: [NSSet class]]) {
    // Set members come in enumeration order; the tests' side sorts them.
    Put(out, ",\"$items\":[");
    NSArray *list = [o isKindOfClass: [NSSet class]] ? [o allObjects] : o;
    NSUInteger i = 0;
    for (id item in list) {
      [f add: item after: i++ == 0 ? @"" : @","];
    }
    f->closing = [@"]}" retain];
  } else if ([o isKindOfClass: [NSDictionary class]]) {
    NSArray *keys = [o allKeys];
    BOOL allStrings = YES;
    for (id k in keys) allStrings = allStrings && [k isKindOfClass: [NSString class]];
    if (allStrings) {
      Put(out, ",\"$entries\":{");
      NSUInteger i = 0;
      for (NSString *k in [keys sortedArrayUsingFunction: CompareUTF8 context: NULL]) {
        NSMutableData *prefix = [NSMutableData data];
        if (i++ > 0) Put(prefix, ",");
        PutString(prefix, k);
        Put(prefix, ":");
        [f add: [o objectForKey: k]
            after: [[[NSString alloc] initWithData: prefix encoding: NSUTF8StringEncoding] autorelease]];
      }
      f->closing = [@"}}" retain];
    } else {
      Put(out, ",\"$pairs\":[");
      NSMutableDictionary *byText = [NSMutableDictionary dictionary];
      for (id k in keys) [byText setObject: k forKey: KeyText(k)];
      NSUInteger i = 0;
      for (NSString *text in [[byText allKeys] sortedArrayUsingFunction: CompareUTF8 context: NULL]) {
        id k = [byText objectForKey: text];
        [f add: k after: i++ == 0 ? @"[" : @"],["];
        [f add: [o objectForKey: k] after: @","];
      }
      f->closing = [([keys count] > 0 ? @"]]}" : @"]}") retain];
    }
  } else {
    NSDictionary *values = [o peerValues];
    Class cls = [o class];
    for (NSString *k in [PeerKeysOfClass(cls) sortedArrayUsingFunction: CompareUTF8 context: NULL]) {
      id v = [values objectForKey: k];
      switch (PeerKindOfKey(cls, k)) {
        case 'i': v = [NSNumber numberWithLongLong: [v longLongValue]]; break;
        case 'b': v = [NSNumber numberWithBool: [v boolValue]]; break;
        case 'd': v = [NSNumber numberWithDouble: [v doubleValue]]; break;
      }
      NSMutableData *prefix = [NSMutableData data];
      Put(prefix, ",");
      PutString(prefix, k);
      Put(prefix, ":");
      [f add: v after: [[[NSString alloc] initWithData: prefix encoding: NSUTF8StringEncoding] autorelease]];
    }
    f->closing = [@"}" retain];
  }
  return f;
}

NSData *PeerDumpGraph(id root) {
  NSMutableData *out = [NSMutableData data];
  NSMapTable *ids = NSCreateMapTable(NSNonOwnedPointerMapKeyCallBacks, NSIntegerMapValueCallBacks, 0);
  long nextId = 1;
  NSMutableArray *stack = [NSMutableArray array];
  DumpFrame *top = [[DumpFrame new] autorelease];
  [top add: root after: @""];
  top->closing = [@"\n" retain];
  [stack addObject: top];
  while ([stack count] > 0) {
    DumpFrame *f = [stack lastObject];
    if (f->next == [f->children count]) {
      Put(out, [f->closing UTF8String]);
      [stack removeLastObject];
      continue;
    }
    NSAutoreleasePool *pool = [NSAutoreleasePool new];
    Put(out, [[f->prefixes objectAtIndex: f->next] UTF8String]);
    id child = [f->children objectAtIndex: f->next];
    f->next++;
    if (!PutLeaf(out, child)) {
      long seen = (long)(intptr_t)NSMapGet(ids, child);
      if (seen != 0) {
        char buf[32];
        snprintf(buf, sizeof buf, "{\"$ref\":%ld}", seen);
        Put(out, buf);
      } else {
        NSMapInsert(ids, child, (void *)(intptr_t)nextId);
        [stack addObject: Open(out, child, nextId)];
        nextId++;
      }
    }
    [pool release];
  }
  NSFreeMapTable(ids);
  return out;
}

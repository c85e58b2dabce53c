// A small JSON reader that keeps what the graph form needs: 64-bit integers exact, integers apart from
// reals, booleans apart from both (GNUstep's NSJSONSerialization reads every number as a double).
#import "peer.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

// Deep enough for the graphs of the tests; the recursion stays within the main stack.
enum { kMaxDepth = 20000 };

typedef struct {
  const unsigned char *p;
  const unsigned char *end;
  const unsigned char *start;
  int depth;
} Reader;

static void Fail(Reader *r, const char *what) {
  PeerFail(@"JSON: %s at offset %ld", what, (long)(r->p - r->start));
}

static void SkipBlanks(Reader *r) {
  while (r->p < r->end && (*r->p == ' ' || *r->p == '\t' || *r->p == '\n' || *r->p == '\r')) r->p++;
}

static BOOL Take(Reader *r, const char *word) {
  size_t n = strlen(word);
  if ((size_t)(r->end - r->p) >= n && memcmp(r->p, word, n) == 0) {
    r->p += n;
    return YES;
  }
  return NO;
}

static unsigned Hex4(Reader *r) {
  if (r->end - r->p < 4) Fail(r, "short \\u escape");
  unsigned v = 0;
  for (int i = 0; i < 4; i++) {
    unsigned char c = *r->p++;
    v <<= 4;
    if (c >= '0' && c <= '9') v |= c - '0';
    else if (c >= 'a' && c <= 'f') v |= c - 'a' + 10;
    else if (c >= 'A' && c <= 'F') v |= c - 'A' + 10;
    else Fail(r, "bad \\u escape");
  }
  return v;
}

static void PutUTF8(NSMutableData *out, unsigned cp) {
  unsigned char b[4];
  int n;
  if (cp < 0x80) { b[0] = cp; n = 1; }
  else if (cp < 0x800) { b[0] = 0xC0 | (cp >> 6); b[1] = 0x80 | (cp & 0x3F); n = 2; }
  else if (cp < 0x10000) { b[0] = 0xE0 | (cp >> 12); b[1] = 0x80 | ((cp >> 6) & 0x3F); b[2] = 0x80 | (cp & 0x3F); n = 3; }
  else { b[0] = 0xF0 | (cp >> 18); b[1] = 0x80 | ((cp >> 12) & 0x3F); b[2] = 0x80 | ((cp >> 6) & 0x3F); b[3] = 0x80 | (cp & 0x3F); n = 4; }
  [out appendBytes: b length: n];
}

static NSString *ReadString(Reader *r) {
  r->p++;  // the opening quote
  NSMutableData *bytes = [NSMutableData data];
  for (;;) {
    if (r->p >= r->end) Fail(r, "unterminated string");
    unsigned char c = *r->p++;
    if (c == '"') break;
    if (c != '\\') {
      [bytes appendBytes: &c length: 1];
      continue;
    }
    if (r->p >= r->end) Fail(r, "unterminated escape");
    c = *r->p++;
    switch (c) {
      case '"': case '\\': case '/': [bytes appendBytes: &c length: 1]; break;
      case 'b': PutUTF8(bytes, 8); break;
      case 'f': PutUTF8(bytes, 12); break;
      case 'n': PutUTF8(bytes, 10); break;
      case 'r': PutUTF8(bytes, 13); break;
      case 't': PutUTF8(bytes, 9); break;
      case 'u': {
        unsigned cp = Hex4(r);
        if (cp >= 0xD800 && cp < 0xDC00 && r->end - r->p >= 6 && r->p[0] == '\\' && r->p[1] == 'u') {
          r->p += 2;
          unsigned lo = Hex4(r);
          if (lo >= 0xDC00 && lo < 0xE000) cp = 0x10000 + ((cp - 0xD800) << 10) + (lo - 0xDC00);
          else Fail(r, "unpaired surrogate");
        }
        PutUTF8(bytes, cp);
        break;
      }
      default: Fail(r, "bad escape");
    }
  }
  NSString *s = [[[NSString alloc] initWithData: bytes encoding: NSUTF8StringEncoding] autorelease];
  if (s == nil) Fail(r, "string is not UTF-8");
  return s;
}

static NSNumber *ReadNumber(Reader *r) {
  const unsigned char *begin = r->p;
  BOOL real = NO;
  while (r->p < r->end && strchr("+-0123456789.eE", *r->p) != NULL) {
    if (*r->p == '.' || *r->p == 'e' || *r->p == 'E') real = YES;
    r->p++;
  }
  char buf[64];
  size_t n = (size_t)(r->p - begin);
  if (n == 0 || n >= sizeof buf) Fail(r, "bad number");
  memcpy(buf, begin, n);
  buf[n] = 0;
  char *endp = NULL;
  errno = 0;
  if (real) {
    double d = strtod(buf, &endp);
    if (*endp != 0) Fail(r, "bad number");
    return [NSNumber numberWithDouble: d];
  }
  if (buf[0] == '-') {
    long long v = strtoll(buf, &endp, 10);
    if (*endp != 0 || errno == ERANGE) Fail(r, "bad integer");
    return [NSNumber numberWithLongLong: v];
  }
  unsigned long long v = strtoull(buf, &endp, 10);
  if (*endp != 0 || errno == ERANGE) Fail(r, "bad integer");
  if (v <= (unsigned long long)LLONG_MAX) return [NSNumber numberWithLongLong: (long long)v];
  return [NSNumber numberWithUnsignedLongLong: v];
}

static id ReadValue(Reader *r) {
  SkipBlanks(r);
  if (r->p >= r->end) Fail(r, "unexpected end");
  if (++r->depth > kMaxDepth) Fail(r, "nesting too deep");
  id result = nil;
  unsigned char c = *r->p;
  if (c == '{') {
    r->p++;
    NSMutableDictionary *d = [NSMutableDictionary dictionary];
    SkipBlanks(r);
    if (r->p < r->end && *r->p == '}') {
      r->p++;
    } else {
      for (;;) {
        SkipBlanks(r);
        if (r->p >= r->end || *r->p != '"') Fail(r, "expected a key");
        NSString *key = ReadString(r);
        SkipBlanks(r);
        if (r->p >= r->end || *r->p != ':') Fail(r, "expected ':'");
        r->p++;
        [d setObject: ReadValue(r) forKey: key];
        SkipBlanks(r);
        if (r->p < r->end && *r->p == ',') { r->p++; continue; }
        if (r->p < r->end && *r->p == '}') { r->p++; break; }
        Fail(r, "expected ',' or '}'");
      }
    }
    result = d;
  } else if (c == '[') {
    r->p++;
    NSMutableArray *a = [NSMutableArray array];
    SkipBlanks(r);
    if (r->p < r->end && *r->p == ']') {
      r->p++;
    } else {
      for (;;) {
        [a addObject: ReadValue(r)];
        SkipBlanks(r);
        if (r->p < r->end && *r->p == ',') { r->p++; continue; }
        if (r->p < r->end && *r->p == ']') { r->p++; break; }
        Fail(r, "expected ',' or ']'");
      }
    }
    result = a;
  } else if (c == '"') {
    result = ReadString(r);
  } else if (Take(r, "true")) {
    result = [NSNumber numberWithBool: YES];
  } else if (Take(r, "false")) {
    result = [NSNumber numberWithBool: NO];
  } else if (Take(r, "null")) {
    result = [NSNull null];
  } else {
    result = ReadNumber(r);
  }
  r->depth--;
  return result;
}

id PeerParseJSON(NSData *text) {
  Reader r;
  r.start = r.p = [text bytes];
  r.end = r.p + [text length];
  r.depth = 0;
  id v = ReadValue(&r);
  SkipBlanks(&r);
  if (r.p != r.end) Fail(&r, "trailing text");
  return v;
}

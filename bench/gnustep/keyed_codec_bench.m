// gnustep-keyed-bench: GNUstep's keyed archiver and unarchiver on one of our reply archives, through the
// client's copies of the record classes (tests/gnustep/peer/records.m), for comparison with our coder
// on the same records (codec_compare keyed).
//
//   gnustep-keyed-bench ARCHIVE [RUNS]
//
// decode: NSKeyedUnarchiver reads ARCHIVE (non-secure, NSArray mapped to the peer's immutable array, as
//         the peer does) into the client's objects.
// encode: archivedDataWithRootObject: of the decoded graph (binary).
// Prints "gnustep decode|encode <seconds>" (the fastest of at least RUNS runs, default 1; short ones are
// repeated up to 20 times within about a second) and
// "info gnustep_archive_bytes <n>". GNUstep's binary coder holds at most 65,536 objects and its writer
// takes time quadratic in their number: keep ARCHIVE to a few thousand objects.
#import "peer.h"

#include <stdio.h>
#include <stdlib.h>
#include <time.h>

static double Now(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (double)ts.tv_sec + (double)ts.tv_nsec * 1e-9;
}

static id Decode(NSData *bytes) {
  NSKeyedUnarchiver *u = [[[NSKeyedUnarchiver alloc] initForReadingWithData: bytes] autorelease];
  if (u == nil) PeerFail(@"not a keyed archive");
  [u setClass: [PeerArray class] forClassName: @"NSArray"];
  id root = [u decodeObjectForKey: @"root"];
  [u finishDecoding];
  if (root == nil) PeerFail(@"the archive decodes to nil");
  return root;
}

// Whether to make another run: at least min_runs, then more while they are short.
static BOOL Again(int done, int min_runs, double start) {
  return done < 20 && (done < min_runs || Now() - start <= 1.0);
}

int main(int argc, char **argv) {
  if (argc < 2 || argc > 3) {
    fprintf(stderr, "usage: gnustep-keyed-bench ARCHIVE [RUNS]\n");
    return 2;
  }
  int runs = argc == 3 ? atoi(argv[2]) : 1;
  if (runs < 1) runs = 1;
  NSAutoreleasePool *outer = [NSAutoreleasePool new];
  int status = 0;
  NS_DURING
    NSData *bytes = [NSData dataWithContentsOfFile: [NSString stringWithUTF8String: argv[1]]];
    if (bytes == nil) PeerFail(@"cannot read %s", argv[1]);
    double best_decode = 1e300, best_encode = 1e300;
    NSUInteger written = 0;
    double start = Now();
    for (int done = 0; Again(done, runs, start); done++) {
      NSAutoreleasePool *pool = [NSAutoreleasePool new];
      double t0 = Now();
      Decode(bytes);
      double t1 = Now();
      if (t1 - t0 < best_decode) best_decode = t1 - t0;
      [pool release];
    }
    id root = [Decode(bytes) retain];
    start = Now();
    for (int done = 0; Again(done, runs, start); done++) {
      NSAutoreleasePool *pool = [NSAutoreleasePool new];
      double t0 = Now();
      NSData *archive = [NSKeyedArchiver archivedDataWithRootObject: root];
      double t1 = Now();
      if (t1 - t0 < best_encode) best_encode = t1 - t0;
      written = [archive length];
      [pool release];
    }
    [root release];
    printf("gnustep decode %.6f\ngnustep encode %.6f\ninfo gnustep_archive_bytes %lu\n", best_decode, best_encode,
           (unsigned long)written);
  NS_HANDLER
    fprintf(stderr, "gnustep-keyed-bench: %s: %s\n", [[localException name] UTF8String],
            [[localException reason] UTF8String]);
    status = 1;
  NS_ENDHANDLER
  [outer release];
  return status;
}

// gnustep-peer decode ARCHIVE            prints the tagged JSON of the archive's root object, as a list
//                                        of one item
// gnustep-peer encode [--xml] GRAPH OUT  writes the object graph of a tagged JSON tree as a keyed
//                                        archive (archivedDataWithRootObject:, binary unless --xml)
// Exit status 0 on success; 1 with a message on stderr when the input cannot be read or built;
// 2 for wrong arguments.
#import "peer.h"

#include <stdio.h>

static int Decode(NSString *path) {
  NSData *bytes = [NSData dataWithContentsOfFile: path];
  if (bytes == nil) PeerFail(@"cannot read %@", path);
  // Non-secure decoding, as the client does.
  NSKeyedUnarchiver *u = [[[NSKeyedUnarchiver alloc] initForReadingWithData: bytes] autorelease];
  if (u == nil) PeerFail(@"not a keyed archive");
  [u setClass: [PeerArray class] forClassName: @"NSArray"];
  id root = [u decodeObjectForKey: @"root"];
  [u finishDecoding];
  NSData *json = [NSJSONSerialization dataWithJSONObject: [NSArray arrayWithObject: PeerDumpGraph(root)]
                                                 options: 0
                                                   error: NULL];
  if (json == nil) PeerFail(@"cannot write the graph as JSON");
  fwrite([json bytes], 1, [json length], stdout);
  return fflush(stdout) == 0 ? 0 : 1;
}

static int Encode(NSString *graphPath, NSString *outPath, BOOL xml) {
  NSData *graph = [NSData dataWithContentsOfFile: graphPath];
  id json = graph ? [NSJSONSerialization JSONObjectWithData: graph options: 0 error: NULL] : nil;
  if (json == nil) PeerFail(@"cannot read %@", graphPath);
  id root = PeerBuildGraph(json);
  NSMutableData *archive = [NSMutableData data];
  if (xml) {
    NSKeyedArchiver *a = [[[NSKeyedArchiver alloc] initForWritingWithMutableData: archive] autorelease];
    [a setOutputFormat: NSPropertyListXMLFormat_v1_0];
    [a encodeObject: root forKey: @"root"];
    [a finishEncoding];
  } else {
    [archive setData: [NSKeyedArchiver archivedDataWithRootObject: root]];
  }
  if (![archive writeToFile: outPath atomically: NO]) PeerFail(@"cannot write %@", outPath);
  return 0;
}

int main(int argc, char **argv) {
  NSAutoreleasePool *pool = [NSAutoreleasePool new];
  int status = 2;
  NSMutableArray *args = [NSMutableArray array];
  for (int i = 1; i < argc; i++) [args addObject: [NSString stringWithUTF8String: argv[i]]];
  BOOL xml = [args containsObject: @"--xml"];
  [args removeObject: @"--xml"];
  NS_DURING
    if ([args count] == 2 && [[args objectAtIndex: 0] isEqual: @"decode"]) {
      status = Decode([args objectAtIndex: 1]);
    } else if ([args count] == 3 && [[args objectAtIndex: 0] isEqual: @"encode"]) {
      status = Encode([args objectAtIndex: 1], [args objectAtIndex: 2], xml);
    } else {
      fprintf(stderr, "usage: gnustep-peer decode ARCHIVE | encode [--xml] GRAPH OUT\n");
    }
  NS_HANDLER
    fprintf(stderr, "gnustep-peer: %s: %s\n", [[localException name] UTF8String],
            [[localException reason] UTF8String]);
    status = 1;
  NS_ENDHANDLER
  [pool release];
  return status;
}

#pragma once

// What the allocator does with memory the service has freed. glibc keeps it for
// reuse, in an arena of each thread that allocated it, and by default moves the
// size above which a block is mapped on its own, and the free top an arena may
// keep, as the process runs. A pass over the shared-files list allocates a few
// copies of the list while it runs, so what the threads kept grew with the list,
// which grows by an entry per file received: tens of kilobytes per file, though
// nothing was held.
class FreedMemory {
 public:
  // Fixes both sizes, once, at the start before any thread is made: a block of
  // less than 4 MiB comes from an arena (a download's 1 MiB pieces are reused
  // there: mapping and unmapping each one costs the kernel more than writing it
  // to disk), and an arena keeps a free top of up to 8 MiB until giveBack().
  static void keepLittle();
  // Gives every arena's free pages back to the system. Called as a pass over the
  // list ends and as a download ends; it costs a few milliseconds after a pass
  // over thousands of entries, and next to nothing when little is free.
  static void giveBack();
};

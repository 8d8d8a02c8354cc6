#pragma once

// What the allocator does with memory the service has freed. glibc keeps it for
// reuse, in an arena of each thread that allocated it; and once a large block has
// been freed, it raises the size a block needs to be mapped on its own, and the
// free top an arena may keep, to about 1 and 2 MiB. A pass over the shared-files
// list allocates a few copies of the list while it runs, so what the threads kept
// grew with the list, which grows by an entry per file received: tens of
// kilobytes per file, though nothing was held.
class FreedMemory {
 public:
  // Fixes both sizes at glibc's first values (128 KiB), once, at the start before
  // any thread is made: a large block is mapped alone and unmapped when freed, and
  // an arena gives back a free top larger than that. (A download's 1 MiB pieces
  // are kept for reuse by the transfer engine while transfers run.)
  static void keepLittle();
  // Gives every arena's free pages back to the system. Called as a pass over the
  // list ends and as a download ends; it costs a few milliseconds after a pass
  // over thousands of entries, and next to nothing when little is free.
  static void giveBack();
};

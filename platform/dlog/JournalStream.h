#ifndef PLATFORM_DLOG_JOURNALSTREAM_H
#define PLATFORM_DLOG_JOURNALSTREAM_H

// Whether this descriptor is the stream to the journal that JOURNAL_STREAM names by its device and
// inode. It then takes a priority at the beginning of a line, "<0>" to "<7>", and has the time of
// each line. Any thread. Sets errno.
bool IsJournalStream(int descriptor) noexcept;

#endif  // PLATFORM_DLOG_JOURNALSTREAM_H

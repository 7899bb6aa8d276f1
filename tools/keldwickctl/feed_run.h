// Runs one feed: from its source into the log, until the source ends or a stop signal comes.
#pragma once

#include <string>

#include "tools/keldwickctl/feed_line_reader.h"

struct FEED_OPTIONS {
    std::string source, file, log = "Security", name;
    bool once = false;         // ends when it has read what is there
    int progressSeconds = 30;  // of a backlog without a pause, between two lines that say how far it is
};

// All throw COMMAND_ERROR for what ends a feed. Records are in the log before a pause of the input is waited out.
void FollowFile(const FEED_OPTIONS& options, FEED_LINE_READER& reader);
void ReadLines(const FEED_OPTIONS& options, FEED_LINE_READER& reader);  // of standard input
void ReadEventXml(const FEED_OPTIONS& options);                         // of standard input

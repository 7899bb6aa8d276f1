// keldwickctl events import: a file of events of whatever kind into a log.
#pragma once

#include <string>

// Appends the events of `source` (a path, or - for standard input) to the log of that name, says on standard output how
// many, and on standard error each thing that could not be read. What could be read is in the log also when this throws
// COMMAND_ERROR, as it does when something could not.
void ImportEvents(const std::string& source, const std::string& log);

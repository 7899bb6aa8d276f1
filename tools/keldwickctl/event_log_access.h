// A log by its name, for the commands: what fails is told in the commands' way.
#pragma once

#include <string>

#include "win32/eventlog/evt_reader.h"
#include "win32/eventlog/evt_writer.h"

// The host's path of the log's file. Throws COMMAND_ERROR when there is no such log in the machine root.
std::string LogPath(const std::string& log);

// Opens the log with the size that its MaxSize value gives. Throws COMMAND_ERROR.
void OpenWriter(win32::EVT_WRITER& writer, const std::string& log);
void OpenReader(win32::EVT_READER& reader, const std::string& log);
void ClearLog(const std::string& log);

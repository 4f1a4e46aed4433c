// Reading the library's API trace ring: fixed-width lines with an "EndLog"
// marker after the newest line; the lines after the marker are the older
// lap.  Chronological order is therefore: the lines after the marker, then
// the lines from the top of the file up to the marker.
#pragma once

#include <string>
#include <vector>

namespace qmxmgr {

// The file the library writes its trace to (the tool directory when it
// exists, else the working directory).
std::string traceFilePath();

// The ring's lines in chronological order, trailing blanks removed, blank
// lines left out.  A ring without a marker is returned in file order.
std::vector<std::string> chronological(const std::string &content);

// Reads the whole file under a shared lock (the library holds an exclusive
// one while it writes).  false when it cannot be opened.
bool readTraceFile(const std::string &path, std::string *content);

// The lines of `now` that `before` did not end with.  The ring only loses
// its oldest lines and gains newer ones, so the newest lines of `before`
// are found again in `now` and everything after them is new.
std::vector<std::string> newLines(const std::vector<std::string> &before,
                                  const std::vector<std::string> &now);

// The reason a failed call of this process left in the trace: the last line
// it wrote before "<call> ABEND" that is not a START, END, ABEND or Error
// line of a routine ("The same key exists.", "queue is invalid value").
// Empty when the trace cannot be read or holds no such line.
std::string failureDetail(const std::string &call);

// The one-line report of a failed call: call, reason, code and detail.
std::string failureLine(const std::string &call, const std::string &message);

}  // namespace qmxmgr

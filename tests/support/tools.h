// Running the independent NTFS readers (ntfsinfo, ntfsls, ntfscat, ntfsfix,
// fls, icat) as black-box programs and reading what they print.
#pragma once

#include <map>
#include <string>

namespace ntfs::test {

struct ToolResult {
    int status = -1;     // exit status, -1 when the program could not run
    std::string output;  // standard output and standard error together
};

// Runs a shell command line and collects what it prints.
ToolResult RunTool(const std::string& command);
// Quotes a path for the shell.
std::string ShellQuote(const std::string& text);
// `ntfsinfo -m IMAGE` as "Key" -> "value" pairs (e.g. "Cluster Size" -> "4096").
std::map<std::string, std::string> VolumeInfo(const std::string& imagePath);

}  // namespace ntfs::test

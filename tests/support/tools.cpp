#include "support/tools.h"

#include <sys/wait.h>

#include <cstdio>

namespace ntfs::test {

ToolResult RunTool(const std::string& command) {
    ToolResult result;
    std::FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return result;
    char chunk[4096];
    size_t got;
    while ((got = std::fread(chunk, 1, sizeof(chunk), pipe)) > 0) result.output.append(chunk, got);
    const int status = pclose(pipe);
    result.status = status >= 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

std::string ShellQuote(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) {
        if (c == '\'')
            quoted += "'\\''";
        else
            quoted += c;
    }
    return quoted + "'";
}

std::map<std::string, std::string> VolumeInfo(const std::string& imagePath) {
    std::map<std::string, std::string> info;
    const ToolResult run = RunTool("ntfsinfo -m " + ShellQuote(imagePath));
    size_t start = 0;
    while (start < run.output.size()) {
        size_t end = run.output.find('\n', start);
        if (end == std::string::npos) end = run.output.size();
        const std::string line = run.output.substr(start, end - start);
        const size_t colon = line.find(": ");
        if (colon != std::string::npos) {
            const size_t first = line.find_first_not_of(" \t");
            info[line.substr(first, colon - first)] = line.substr(colon + 2);
        }
        start = end + 1;
    }
    return info;
}

}  // namespace ntfs::test

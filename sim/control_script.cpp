#include "control_script.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "launcher_options.h"

namespace tarvik::sim {

namespace {

constexpr long kLongestMs = 24L * 60 * 60 * 1000;
constexpr off_t kLargestScript = 1 << 20;

std::string Text(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) throw UsageError(path + ": " + std::strerror(errno));
    if (!S_ISREG(st.st_mode)) throw UsageError(path + ": not a regular file");
    if (st.st_size > kLargestScript) throw UsageError(path + ": more than 1 MiB");
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    if (!in) throw UsageError(path + ": cannot be read");
    return text.str();
}

long Milliseconds(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || text.empty() || *end != '\0' || v < 0 || v > kLongestMs) {
        throw UsageError("bad time " + text + " (0 to 86400000 ms)");
    }
    return v;
}

}  // namespace

std::vector<ScriptLine> LoadControlScript(const std::string& path) {
    const std::string folder = path.find('/') == std::string::npos
                                   ? "."
                                   : path.substr(0, std::max<size_t>(path.rfind('/'), 1));
    std::istringstream text(Text(path));
    std::vector<ScriptLine> script;
    std::string line;
    for (int number = 1; std::getline(text, line); ++number) {
        std::istringstream in(line.substr(0, line.find('#')));
        std::vector<std::string> words;
        for (std::string w; in >> w;) words.push_back(w);
        if (words.empty()) continue;
        try {
            if (words[0] != "at" || words.size() < 3) throw UsageError("expected: at MS COMMAND");
            ScriptLine s;
            s.at = std::chrono::milliseconds(Milliseconds(words[1]));
            s.command = ParseControlCommand({words.begin() + 2, words.end()}, folder);
            s.line = number;
            if (!script.empty() && s.at < script.back().at) {
                throw UsageError("at " + words[1] + " is earlier than the line before");
            }
            script.push_back(std::move(s));
        } catch (const UsageError& e) {
            throw UsageError(path + ": line " + std::to_string(number) + ": " + e.what());
        }
    }
    return script;
}

}  // namespace tarvik::sim

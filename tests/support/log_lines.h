// Reading the library's standard output in tests: every prefixed message is
// "\r[File:<path>, Line:<n>] <text>".
#pragma once

#include <regex>
#include <string>
#include <vector>

namespace tarvik::test {

struct LogEntry {
    std::string file;  // empty for text printed without the prefix
    int line = 0;
    std::string text;
};

// Splits captured output into prefixed messages and unprefixed lines. A
// prefixed message ends at its first line feed, or where the next prefix begins.
inline std::vector<LogEntry> ParseLog(const std::string& out) {
    static const std::regex prefix(R"(\r\[File:([^,\]]+), Line:(\d+)\] )");
    std::vector<LogEntry> entries;
    auto addPlain = [&entries](const std::string& text) {
        size_t pos = 0;
        while (pos < text.size()) {
            const size_t nl = text.find('\n', pos);
            const size_t end = nl == std::string::npos ? text.size() : nl + 1;
            entries.push_back({"", 0, text.substr(pos, end - pos)});
            pos = end;
        }
    };
    auto addChunk = [&](const std::string& file, int line, const std::string& chunk) {
        const size_t nl = chunk.find('\n');
        const size_t end = nl == std::string::npos ? chunk.size() : nl + 1;
        entries.push_back({file, line, chunk.substr(0, end)});
        addPlain(chunk.substr(end));
    };
    std::string file;
    int line = 0;
    bool open = false;
    size_t pos = 0;
    for (auto it = std::sregex_iterator(out.begin(), out.end(), prefix);
         it != std::sregex_iterator(); ++it) {
        const size_t at = static_cast<size_t>(it->position());
        const std::string between = out.substr(pos, at - pos);
        if (open) {
            addChunk(file, line, between);
        } else {
            addPlain(between);
        }
        file = (*it)[1].str();
        line = std::stoi((*it)[2].str());
        open = true;
        pos = at + static_cast<size_t>(it->length());
    }
    if (open) {
        addChunk(file, line, out.substr(pos));
    } else {
        addPlain(out.substr(pos));
    }
    return entries;
}

// The unprefixed lines, in order.
inline std::vector<std::string> PlainLines(const std::string& out) {
    std::vector<std::string> lines;
    for (const LogEntry& e : ParseLog(out)) {
        if (e.file.empty()) lines.push_back(e.text);
    }
    return lines;
}

// The texts of the prefixed messages, in order.
inline std::vector<std::string> Messages(const std::string& out) {
    std::vector<std::string> texts;
    for (const LogEntry& e : ParseLog(out)) {
        if (!e.file.empty()) texts.push_back(e.text);
    }
    return texts;
}

// Whether some prefixed message is exactly `text`.
inline bool HasMessage(const std::string& out, const std::string& text) {
    for (const std::string& m : Messages(out)) {
        if (m == text) return true;
    }
    return false;
}

}  // namespace tarvik::test

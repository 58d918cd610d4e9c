// Files of the tree that tests read.
#pragma once

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace TestSupport {

inline std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw std::runtime_error("cannot read " + path.string());
    }
    return {std::istreambuf_iterator<char>(file), {}};
}

// The files of a folder, without those of folders in it, ordered by name.
inline std::vector<std::filesystem::path> ListFiles(const std::filesystem::path& folder) {
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.is_regular_file()) {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

// Replaces \n, \r, \t, \\ and \xHH in `text`, and \e, which stands for nothing.
inline std::string Unescape(const std::string& text) {
    std::string result;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '\\') {
            result += text[at];
        } else if (text.at(++at) == 'x') {
            result += static_cast<char>(std::stoi(text.substr(at + 1, 2), nullptr, 16));
            at += 2;
        } else if (text[at] != 'e') {
            result += std::string_view("\n\r\t\\").at(std::string_view("nrt\\").find(text[at]));
        }
    }
    return result;
}

// An input and what is expected of it.
struct Case {
    std::string input;
    std::string expected;
};

// The cases of a file: each line is what is expected of the inputs in the lines below it that start with four
// spaces. Lines that start with "#" are comments. Throws std::runtime_error when there is none.
inline std::vector<Case> ReadCases(const std::filesystem::path& path) {
    std::istringstream file(ReadFile(path));
    std::vector<Case> cases;
    std::string expected;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("    ")) {
            cases.push_back({Unescape(line.substr(4)), expected});
        } else if (!line.starts_with('#')) {
            expected = Unescape(line);
        }
    }
    if (cases.empty()) {
        throw std::runtime_error("no cases in " + path.string());
    }
    return cases;
}

}  // namespace TestSupport

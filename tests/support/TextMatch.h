#pragma once
// Substring checks that show the whole text when they fail.

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace testsupport {

inline testing::AssertionResult contains(std::string_view text, std::string_view part) {
    if (text.find(part) != std::string_view::npos) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "no \"" << part << "\" in:\n" << text;
}

// Each part after the end of the one before.
inline testing::AssertionResult containsInOrder(std::string_view text,
                                                const std::vector<std::string>& parts) {
    size_t at = 0;
    for (const std::string& part : parts) {
        const size_t found = text.find(part, at);
        if (found == std::string_view::npos) {
            return testing::AssertionFailure()
                   << "no \"" << part << "\" after offset " << at << " in:\n"
                   << text;
        }
        at = found + part.size();
    }
    return testing::AssertionSuccess();
}

}  // namespace testsupport

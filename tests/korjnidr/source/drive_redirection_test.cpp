#include "drive_redirection.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "change_notification.h"

using namespace kor::jni;

// The rows of tests/data/drive/functions.cases; arguments are taken in the order written.
TEST(PureFunctions, AnswerAsTheTableSays) {
    using c_args = std::vector<std::int64_t>;
    const std::map<std::string, std::int64_t (*)(const c_args&)> functions = {
        {"map_errno", [](const c_args& a) -> std::int64_t { return map_errno(a.at(0)); }},
        {"open_flags", [](const c_args& a) -> std::int64_t { return translate_open_flags(a.at(0)); }},
        {"file_time", [](const c_args& a) -> std::int64_t { return unix_to_file_time(a.at(0), a.at(1)); }},
        {"unix_seconds", [](const c_args& a) -> std::int64_t { return file_time_to_unix_seconds(a.at(0)); }},
        {"byte_range", [](const c_args& a) -> std::int64_t { return byte_range_ok(a.at(0), a.at(1), a.at(2)); }},
        {"watch_mask", [](const c_args& a) -> std::int64_t { return watch_mask(a.at(0), a.at(1)); }},
    };
    std::ifstream in(KORJNIDR_TEST_DATA "/drive/functions.cases");
    int rows = 0;
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        std::string function, field;
        if (!(fields >> function) || function[0] == '#') continue;
        c_args args;
        while (fields >> field && field != "->")
            args.push_back(std::stoll(field.substr(field.find('=') + 1), nullptr, 0));
        fields >> field;
        EXPECT_EQ(functions.at(function)(args), std::stoll(field, nullptr, 0)) << line;
        ++rows;
    }
    EXPECT_EQ(rows, 48) << "rows read";
}

// Runs the built fg_splice binary as a user would and captures what it prints.
#pragma once

#include "tests/run_support.h"

using Tool_result = Run_result;

inline Tool_result run_tool(const std::vector<std::string>& args, const std::string& cwd = "",
                            const std::vector<std::string>& env = {})
{
    return run_binary(QV_TEST_TOOL_PATH, args, cwd, env);
}

// Gives a test process its platform configuration.
#pragma once

#include "config/platform_config.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>

/// Makes `text` the platform.toml of this process. The process reads its configuration once, so this comes before
/// anything that asks for it. The file is gone when the function returns.
inline void use_platform_config(const std::string &text)
{
    std::string directory = testing::TempDir() + "platform_config_XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(directory.data()));
    std::ofstream(directory + "/platform.toml") << text;
    setenv("SFLOW_CONFIG_DIR", directory.c_str(), 1);
    static_cast<void>(platform::platform_config());
    std::filesystem::remove_all(directory);
}

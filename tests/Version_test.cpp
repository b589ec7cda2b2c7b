#include "tarvik/Version.h"

#include <gtest/gtest.h>

#include <string>

// The loaded library reports the version the headers were made with, and the text matches the numbers.
TEST(Version, LoadedLibraryMatchesTheHeaders) {
    EXPECT_STREQ(tarvik::version_string(), TARVIK_VERSION_STRING);
    EXPECT_EQ(tarvik::version_major(), TARVIK_VERSION_MAJOR);
    EXPECT_EQ(tarvik::version_minor(), TARVIK_VERSION_MINOR);
    EXPECT_EQ(tarvik::version_patch(), TARVIK_VERSION_PATCH);
    EXPECT_EQ(std::string(tarvik::version_string()), std::to_string(tarvik::version_major()) + "." +
                                                         std::to_string(tarvik::version_minor()) + "." +
                                                         std::to_string(tarvik::version_patch()));
}

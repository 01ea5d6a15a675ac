#include <gtest/gtest.h>

#include "quelvane_zip.h"

TEST(Skeleton, Links) { EXPECT_EQ(sizeof(ZipWriter{}.total_written), 4u); }

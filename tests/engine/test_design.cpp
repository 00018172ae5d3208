#include <gtest/gtest.h>
int dummy_design_placeholder = 0;

// The one result type: a value or an error, and success or an error.

#include "Result/Result.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

namespace {

struct Problem {
    std::string message;
};

using result::Result;

Result<int, Problem> half(int n) {
    if (n % 2 != 0)
        return Problem{"odd"};
    return n / 2;
}

Result<void, Problem> check(bool fine) {
    if (!fine)
        return Problem{"not fine"};
    return {};
}

TEST(ResultTest, AValueIsOkAndReadable) {
    const auto r = half(8);
    EXPECT_TRUE(r.ok());
    EXPECT_TRUE(static_cast<bool>(r));
    EXPECT_EQ(r.value(), 4);
    EXPECT_EQ(*r, 4);
}

TEST(ResultTest, AnErrorIsNotOkAndCarriesItsMessage) {
    const auto r = half(7);
    EXPECT_FALSE(r.ok());
    EXPECT_FALSE(static_cast<bool>(r));
    EXPECT_EQ(r.error().message, "odd");
}

TEST(ResultTest, MembersOfTheValueAreReachedThroughTheArrow) {
    const Result<std::string, Problem> r(std::string("abc"));
    EXPECT_EQ(r->size(), 3u);
}

TEST(ResultTest, AValueThatCannotBeCopiedIsMovedOut) {
    Result<std::unique_ptr<int>, Problem> r(std::make_unique<int>(5));
    std::unique_ptr<int> taken = std::move(r).value();
    ASSERT_NE(taken, nullptr);
    EXPECT_EQ(*taken, 5);
}

TEST(ResultTest, VoidSucceedsWithNothingOrFailsWithAnError) {
    EXPECT_TRUE(check(true).ok());
    const auto failed = check(false);
    EXPECT_FALSE(failed.ok());
    EXPECT_FALSE(static_cast<bool>(failed));
    EXPECT_EQ(failed.error().message, "not fine");
}

} // namespace

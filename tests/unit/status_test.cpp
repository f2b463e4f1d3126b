// A refusal's reason travels in its Status through copies, moves and
// assignments between successes and failures, and a success reads as one.

#include "support/result.h"

#include <gtest/gtest.h>

#include <utility>

using namespace quarvel;

namespace status_test {

Status refused() {
    return Status(Reason::badInput("Invalid load time: 0", meBadRecord).inFile("a.jit").at(40));
}

TEST(Status, KeepsItsReasonThroughCopiesAndMoves) {
    const Status success;
    EXPECT_TRUE(success.ok());
    EXPECT_EQ(meSuccess, success.code());
    EXPECT_TRUE(success.reason().message.empty());

    const Status failure = refused();
    Status copy = failure;
    Status assigned;
    assigned = failure;
    Status moved = refused();
    Status movedInto;
    movedInto = refused();
    const Status* const all[] = {&failure, &copy, &assigned, &moved, &movedInto};
    for (const Status* s : all) {
        EXPECT_FALSE(s->ok());
        EXPECT_EQ(meBadRecord, s->code());
        EXPECT_EQ("a.jit: offset 40: Invalid load time: 0", s->reason().text());
    }
    copy.reason().ofField("load time"); // copies are apart
    EXPECT_TRUE(failure.reason().field.empty());

    Status back = failure;
    back = success;
    EXPECT_TRUE(back.ok());
    EXPECT_EQ(meSuccess, back.code());
    back = std::move(copy);
    EXPECT_EQ("load time", back.reason().field);
}

} // namespace status_test

// SPDX-License-Identifier: MIT
#include "host/cli/words.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/cli/near_miss.h"
#include "host/play/control.h"

namespace ipplay {
namespace {

using List = std::vector<std::string>;

TEST(Words, StandForOptions) {
  EXPECT_EQ(AsOptions({"help"}), List{"--help"});
  EXPECT_EQ(AsOptions({"help", "play"}), (List{"play", "--help"}));
  EXPECT_EQ(AsOptions({"version"}), List{"--version"});
  EXPECT_EQ(AsOptions({"play", "help"}), (List{"play", "help"})) << "a file may have the name";
  EXPECT_EQ(AsOptions({"play", "--at", "2s lose", "--at", "3s", "stop"}),
            (List{"play", "--at", "2s", "lose", "--at", "3s", "stop"}));
}

TEST(Words, NearMissesAreFound) {
  const List names{"--copies", "--loop", "--lose", "--to"};
  EXPECT_EQ(NearMiss("--copis", names), "--copies");
  EXPECT_EQ(NearMiss("--cpoies", names), "--copies");
  EXPECT_EQ(NearMiss("--los", names), "--lose");
  EXPECT_EQ(NearMiss("--xyzzyxyz", names), "");
  EXPECT_EQ(NearMiss(std::string(100'000, 'x'), names), "");
}

TEST(Control, ALineIsAnOrderOrRefused) {
  const ControlOrder order = ParseControl(R"({"do": "break:2s", "id": "a\"b"})");
  ASSERT_TRUE(std::holds_alternative<Action>(order.what));
  EXPECT_EQ(std::get<Action>(order.what).kind, ActionKind::kBreak);
  EXPECT_EQ(Accepted(order), R"({"id":"a\"b","ok":true})");
  EXPECT_EQ(Refused(order, "a \"b\""), R"({"id":"a\"b","ok":false,"error":"a \"b\""})");
  EXPECT_TRUE(std::holds_alternative<AskStatus>(ParseControl(R"({"do":"status"})").what));
  for (const char* line : {"", "{", "7", "[]", "{}", R"({"do":7})", R"({"do":"lose:0"})",
                           R"({"do":"lose","count":2})", R"({"do":{"do":"lose"}})"}) {
    EXPECT_TRUE(std::holds_alternative<std::string>(ParseControl(line).what)) << line;
  }
}

}  // namespace
}  // namespace ipplay

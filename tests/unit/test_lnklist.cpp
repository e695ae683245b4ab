#include <gtest/gtest.h>

#include "lnklist.h"

namespace {

struct item_t {
  lnklist_node_t node;
  int value;
};

TEST(Lnklist, InitializerIsEmpty) {
  lnklist_t list = LNKLIST_INITIALIZER;
  EXPECT_EQ(list.head, nullptr);
  EXPECT_EQ(list.node_count, 0u);
}

TEST(Lnklist, PushPutsTheNewestFirstAndOwnsIt) {
  lnklist_t list = LNKLIST_INITIALIZER;
  item_t a = {{nullptr, nullptr}, 1};
  item_t b = {{nullptr, nullptr}, 2};
  item_t c = {{nullptr, nullptr}, 3};
  lnklist_push_node(&list, &a.node);
  lnklist_push_node(&list, &b.node);
  lnklist_push_node(&list, &c.node);
  EXPECT_EQ(list.node_count, 3u);
  int order[3];
  int n = 0;
  lnklist_node_t* node;
  FOREACH_NODE(&list, node) {
    EXPECT_EQ(node->owner, &list);
    order[n++] = reinterpret_cast<item_t*>(node)->value;
  }
  ASSERT_EQ(n, 3);
  EXPECT_EQ(order[0], 3);
  EXPECT_EQ(order[1], 2);
  EXPECT_EQ(order[2], 1);
}

TEST(Lnklist, RemoveUnlinksHeadMiddleAndTail) {
  lnklist_t list = LNKLIST_INITIALIZER;
  item_t items[4] = {};
  for (item_t& item : items) lnklist_push_node(&list, &item.node);
  lnklist_remove_node(&list, &items[1].node); /* middle */
  lnklist_remove_node(&list, &items[3].node); /* head */
  lnklist_remove_node(&list, &items[0].node); /* tail */
  EXPECT_EQ(list.node_count, 1u);
  EXPECT_EQ(list.head, &items[2].node);
  EXPECT_EQ(items[2].node.next, nullptr);
  EXPECT_EQ(items[1].node.owner, nullptr);
  lnklist_remove_node(&list, &items[2].node);
  EXPECT_EQ(list.head, nullptr);
  EXPECT_EQ(list.node_count, 0u);
}

TEST(Lnklist, RemovingANodeOfAnotherListChangesNothing) {
  lnklist_t list = LNKLIST_INITIALIZER;
  lnklist_t other = LNKLIST_INITIALIZER;
  item_t a = {};
  item_t b = {};
  lnklist_push_node(&list, &a.node);
  lnklist_push_node(&other, &b.node);
  lnklist_remove_node(&list, &b.node);
  EXPECT_EQ(list.node_count, 1u);
  EXPECT_EQ(other.node_count, 1u);
  EXPECT_EQ(b.node.owner, &other);
}

TEST(Lnklist, RemovingWhileWalkingWithASavedNext) {
  lnklist_t list = LNKLIST_INITIALIZER;
  item_t items[5] = {};
  for (int i = 0; i < 5; i++) {
    items[i].value = i;
    lnklist_push_node(&list, &items[i].node);
  }
  for (lnklist_node_t *node = list.head, *next; node != nullptr; node = next) {
    next = node->next;
    if (reinterpret_cast<item_t*>(node)->value % 2 == 0) lnklist_remove_node(&list, node);
  }
  EXPECT_EQ(list.node_count, 2u);
  EXPECT_EQ(list.head, &items[3].node);
  EXPECT_EQ(items[3].node.next, &items[1].node);
}

}  // namespace

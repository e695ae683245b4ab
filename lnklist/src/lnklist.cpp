#include "lnklist.h"

#include <stddef.h>

void lnklist_push_node(lnklist_t* list, lnklist_node_t* node) {
  node->next = list->head;
  node->owner = list;
  list->head = node;
  list->node_count++;
}

void lnklist_remove_node(lnklist_t* list, lnklist_node_t* node) {
  for (lnklist_node_t** link = &list->head; *link != NULL; link = &(*link)->next) {
    if (*link == node) {
      *link = node->next;
      node->next = NULL;
      node->owner = NULL;
      list->node_count--;
      return;
    }
  }
}

#ifndef LNKLIST_H
#define LNKLIST_H

#include <stdint.h>

struct lnklist_t;

/* Embedded in the record it links; the record's address is the node's. */
typedef struct lnklist_node_t {
  struct lnklist_node_t* next;
  struct lnklist_t* owner;
} lnklist_node_t;

typedef struct lnklist_t {
  lnklist_node_t* head;
  uint32_t node_count;
} lnklist_t;

#define LNKLIST_INITIALIZER \
  { 0, 0 }

/* Adds at the head: the newest node comes first. */
void lnklist_push_node(lnklist_t* list, lnklist_node_t* node);
/* Unlinks a node of this list; a node that is not in it is left alone. */
void lnklist_remove_node(lnklist_t* list, lnklist_node_t* node);

#define FOREACH_NODE(list, node) for ((node) = (list)->head; (node) != NULL; (node) = (node)->next)

#endif

// rbtree: an ordered map with the caller's comparison, as a red-black tree in a memory context.
//
// The tree has two sentinels: `root`, a black node whose `left` is the real top, and `nil`, the
// black node every absent child points at. Nodes are allocated in the tree's context; keys and
// values are the caller's and are never copied. rb_destroy can hand each value to a function.
#ifndef J480_UTILS_RBTREE_H
#define J480_UTILS_RBTREE_H

#include <cstdint>

struct MemContext;

enum : int32_t { RB_RED = 0, RB_BLACK = 1 };

struct rb_node {
  int32_t color;
  rb_node* right;
  rb_node* left;
  rb_node* parent;
  void* key;
  void* value;
};

// Positive if `a` sorts after `b`, negative if before, 0 if equal.
typedef int64_t (*rb_compare_fn)(const void* a, const void* b);
typedef void (*rb_free_fn)(void* value);

struct rb_tree {
  MemContext* mem;
  int32_t own_context;
  rb_compare_fn compare;
  rb_node* root;
  rb_node* nil;
};

// With `own_context`, a child context "rb_tree" of `mem` holds the tree and all its nodes.
rb_tree* rb_create(MemContext* mem, int own_context, rb_compare_fn compare);
void rb_destroy(rb_tree* tree, rb_free_fn free_value);
// The new node, or null for a null key or a key already in the tree (which keeps its value).
rb_node* rb_insert(rb_tree* tree, void* key, void* value);
rb_node* rb_search(rb_tree* tree, const void* key);
// The node with an equal key, else the last node on the search path; `root` for an empty tree.
rb_node* rb_search_nearest(rb_tree* tree, const void* key);
rb_node* rb_successor(rb_tree* tree, rb_node* node);
rb_node* rb_predecessor(rb_tree* tree, rb_node* node);
// First node with a key above `key`, or null.
rb_node* rb_search_greater(rb_tree* tree, const void* key);
// Last node with a key below `key`, or null.
rb_node* rb_search_less(rb_tree* tree, const void* key);
// Removes and frees `node`; null is accepted.
void rb_delete(rb_tree* tree, rb_node* node);

// First node in key order, or null for an empty tree.
rb_node* rb_first(rb_tree* tree);

// Checks the red-black properties, the parent links and the key order; returns the black height,
// or -1 with the first broken rule in `why` (when given).
int rb_check(const rb_tree* tree, const char** why);

#endif  // J480_UTILS_RBTREE_H

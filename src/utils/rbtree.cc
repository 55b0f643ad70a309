// rbtree: red-black tree with sentinels, in a memory context.
#include "utils/rbtree.h"

#include "utils/cvlog.h"
#include "utils/mem.h"

namespace {

rb_node* new_sentinel(MemContext* mem) {
  rb_node* n = static_cast<rb_node*>(mem_callocex(mem, sizeof(rb_node), 0));
  n->color = RB_BLACK;
  return n;
}

// The top of the tree, or nil.
inline rb_node* top(const rb_tree* t) { return t->root->left; }

void rotate_left(rb_tree* t, rb_node* x) {
  rb_node* nil = t->nil;
  rb_node* y = x->right;
  x->right = y->left;
  if (y->left != nil) y->left->parent = x;
  y->parent = x->parent;
  if (x == x->parent->left) x->parent->left = y;
  else x->parent->right = y;
  y->left = x;
  x->parent = y;
}

void rotate_right(rb_tree* t, rb_node* y) {
  rb_node* nil = t->nil;
  rb_node* x = y->left;
  y->left = x->right;
  if (x->right != nil) x->right->parent = y;
  x->parent = y->parent;
  if (y == y->parent->left) y->parent->left = x;
  else y->parent->right = x;
  x->right = y;
  y->parent = x;
}

// Restores the properties after a black node was removed above `x`.
void delete_fixup(rb_tree* t, rb_node* x) {
  while (x->color == RB_BLACK && x != top(t)) {
    if (x == x->parent->left) {
      rb_node* w = x->parent->right;
      if (w->color == RB_RED) {
        w->color = RB_BLACK;
        x->parent->color = RB_RED;
        rotate_left(t, x->parent);
        w = x->parent->right;
      }
      if (w->right->color == RB_BLACK && w->left->color == RB_BLACK) {
        w->color = RB_RED;
        x = x->parent;
      } else {
        if (w->right->color == RB_BLACK) {
          w->left->color = RB_BLACK;
          w->color = RB_RED;
          rotate_right(t, w);
          w = x->parent->right;
        }
        w->color = x->parent->color;
        x->parent->color = RB_BLACK;
        w->right->color = RB_BLACK;
        rotate_left(t, x->parent);
        x = top(t);
        break;
      }
    } else {
      rb_node* w = x->parent->left;
      if (w->color == RB_RED) {
        w->color = RB_BLACK;
        x->parent->color = RB_RED;
        rotate_right(t, x->parent);
        w = x->parent->left;
      }
      if (w->right->color == RB_BLACK && w->left->color == RB_BLACK) {
        w->color = RB_RED;
        x = x->parent;
      } else {
        if (w->left->color == RB_BLACK) {
          w->right->color = RB_BLACK;
          w->color = RB_RED;
          rotate_left(t, w);
          w = x->parent->left;
        }
        w->color = x->parent->color;
        x->parent->color = RB_BLACK;
        w->left->color = RB_BLACK;
        rotate_right(t, x->parent);
        x = top(t);
        break;
      }
    }
  }
  x->color = RB_BLACK;
}

// Depth first: left side, then right, then the node. The height of a red-black tree is at most
// twice the logarithm of its size, so the recursion stays shallow.
void destroy_subtree(rb_tree* t, rb_node* n, rb_free_fn free_value) {
  if (n == t->nil) return;
  destroy_subtree(t, n->left, free_value);
  destroy_subtree(t, n->right, free_value);
  free_value(n->value);
  mem_free(t->mem, n);
}

}  // namespace

rb_tree* rb_create(MemContext* mem, int own_context, rb_compare_fn compare) {
  MemContext* m = own_context ? mem_context_create(mem, "rb_tree") : mem;
  rb_tree* t = static_cast<rb_tree*>(mem_callocex(m, sizeof(rb_tree), 0));
  t->mem = m;
  t->own_context = own_context ? 1 : 0;
  t->compare = compare;
  t->nil = new_sentinel(m);
  t->nil->left = t->nil->right = t->nil->parent = t->nil;
  t->root = new_sentinel(m);
  t->root->left = t->root->right = t->root->parent = t->nil;
  return t;
}

void rb_destroy(rb_tree* t, rb_free_fn free_value) {
  if (t == nullptr) return;
  if (free_value != nullptr) destroy_subtree(t, top(t), free_value);
  if (t->own_context) {
    mem_context_remove(t->mem);
    return;
  }
  MemContext* m = t->mem;
  mem_free(m, t->nil);
  mem_free(m, t->root);
  mem_free(m, t);
}

rb_node* rb_insert(rb_tree* t, void* key, void* value) {
  if (key == nullptr) return nullptr;
  rb_node* nil = t->nil;
  rb_node* y = t->root;
  rb_node* x = top(t);
  while (x != nil) {
    y = x;
    int64_t c = t->compare(x->key, key);
    if (c == 0) {
      CV_DEBUG(nullptr, "rb_insert_node: not inserted duplicate key");
      return nullptr;
    }
    x = c > 0 ? x->left : x->right;
  }
  rb_node* z = static_cast<rb_node*>(mem_callocex(t->mem, sizeof(rb_node), 0));
  z->key = key;
  z->value = value;
  z->left = z->right = nil;
  z->parent = y;
  if (y == t->root || t->compare(y->key, key) > 0) y->left = z;
  else y->right = z;
  z->color = RB_RED;

  x = z;
  while (x->parent->color == RB_RED) {
    rb_node* p = x->parent;
    rb_node* g = p->parent;
    if (p == g->left) {
      rb_node* u = g->right;
      if (u->color == RB_RED) {
        p->color = u->color = RB_BLACK;
        g->color = RB_RED;
        x = g;
      } else {
        if (x == p->right) {
          x = p;
          rotate_left(t, x);
          p = x->parent;
        }
        p->color = RB_BLACK;
        g->color = RB_RED;
        rotate_right(t, g);
      }
    } else {
      rb_node* u = g->left;
      if (u->color == RB_RED) {
        p->color = u->color = RB_BLACK;
        g->color = RB_RED;
        x = g;
      } else {
        if (x == p->left) {
          x = p;
          rotate_right(t, x);
          p = x->parent;
        }
        p->color = RB_BLACK;
        g->color = RB_RED;
        rotate_left(t, g);
      }
    }
  }
  top(t)->color = RB_BLACK;
  return z;
}

rb_node* rb_search(rb_tree* t, const void* key) {
  rb_node* x = top(t);
  while (x != t->nil) {
    int64_t c = t->compare(x->key, key);
    if (c == 0) return x;
    x = c > 0 ? x->left : x->right;
  }
  return nullptr;
}

rb_node* rb_search_nearest(rb_tree* t, const void* key) {
  rb_node* last = t->root;
  rb_node* x = top(t);
  while (x != t->nil) {
    last = x;
    int64_t c = t->compare(x->key, key);
    if (c == 0) return x;
    x = c > 0 ? x->left : x->right;
  }
  return last;
}

rb_node* rb_successor(rb_tree* t, rb_node* x) {
  rb_node* nil = t->nil;
  if (x->right != nil) {
    rb_node* y = x->right;
    while (y->left != nil) y = y->left;
    return y;
  }
  rb_node* y = x->parent;
  while (y != t->root && x == y->right) {
    x = y;
    y = y->parent;
  }
  return y == t->root ? nullptr : y;
}

rb_node* rb_predecessor(rb_tree* t, rb_node* x) {
  rb_node* nil = t->nil;
  if (x->left != nil) {
    rb_node* y = x->left;
    while (y->right != nil) y = y->right;
    return y;
  }
  rb_node* y = x->parent;
  while (y != t->root && x == y->left) {
    x = y;
    y = y->parent;
  }
  return y == t->root ? nullptr : y;
}

rb_node* rb_search_greater(rb_tree* t, const void* key) {
  rb_node* best = nullptr;
  rb_node* x = top(t);
  while (x != t->nil) {
    if (t->compare(x->key, key) > 0) {
      best = x;
      x = x->left;
    } else {
      x = x->right;
    }
  }
  return best;
}

rb_node* rb_search_less(rb_tree* t, const void* key) {
  rb_node* best = nullptr;
  rb_node* x = top(t);
  while (x != t->nil) {
    if (t->compare(x->key, key) < 0) {
      best = x;
      x = x->right;
    } else {
      x = x->left;
    }
  }
  return best;
}

rb_node* rb_first(rb_tree* t) {
  rb_node* x = top(t);
  if (x == t->nil) return nullptr;
  while (x->left != t->nil) x = x->left;
  return x;
}

void rb_delete(rb_tree* t, rb_node* z) {
  if (z == nullptr) return;
  rb_node* nil = t->nil;
  // y: the node spliced out; z itself with at most one real child, else its successor.
  rb_node* y = (z->left == nil || z->right == nil) ? z : rb_successor(t, z);
  rb_node* x = y->left != nil ? y->left : y->right;
  x->parent = y->parent;  // may write nil->parent: scratch for the repair walk
  if (y == y->parent->left) y->parent->left = x;
  else y->parent->right = x;
  int32_t removed_color = y->color;
  if (y != z) {
    // The successor takes z's place, colour and links.
    y->left = z->left;
    y->right = z->right;
    y->parent = z->parent;
    y->color = z->color;
    z->left->parent = z->right->parent = y;
    if (z == z->parent->left) z->parent->left = y;
    else z->parent->right = y;
    if (x->parent == z) x->parent = y;
  }
  if (removed_color == RB_BLACK) delete_fixup(t, x);
  nil->parent = nil;
  nil->color = RB_BLACK;
  mem_free(t->mem, z);
}

namespace {
int check_node(const rb_tree* t, const rb_node* n, const char** why) {
  if (n == t->nil) return 1;
  if (n->left != t->nil && n->left->parent != n) return *why = "broken parent link", -1;
  if (n->right != t->nil && n->right->parent != n) return *why = "broken parent link", -1;
  if (n->color == RB_RED && (n->left->color == RB_RED || n->right->color == RB_RED))
    return *why = "red node with a red child", -1;
  if (n->left != t->nil && t->compare(n->left->key, n->key) >= 0)
    return *why = "left child out of order", -1;
  if (n->right != t->nil && t->compare(n->right->key, n->key) <= 0)
    return *why = "right child out of order", -1;
  int lh = check_node(t, n->left, why);
  if (lh < 0) return -1;
  int rh = check_node(t, n->right, why);
  if (rh < 0) return -1;
  if (lh != rh) return *why = "unequal black heights", -1;
  return lh + (n->color == RB_BLACK ? 1 : 0);
}
}  // namespace

int rb_check(const rb_tree* t, const char** why) {
  const char* dummy;
  if (why == nullptr) why = &dummy;
  *why = nullptr;
  if (t->nil->color != RB_BLACK || t->root->color != RB_BLACK)
    return *why = "sentinel not black", -1;
  const rb_node* tp = t->root->left;
  if (tp != t->nil && tp->color != RB_BLACK) return *why = "red top", -1;
  if (tp != t->nil && tp->parent != t->root) return *why = "top not under root", -1;
  if (t->root->right != t->nil) return *why = "root sentinel has a right child", -1;
  // In-order: each node sorts after its predecessor (covers order across subtrees).
  const rb_node* prev = nullptr;
  for (const rb_node* n = rb_first(const_cast<rb_tree*>(t)); n != nullptr;
       n = rb_successor(const_cast<rb_tree*>(t), const_cast<rb_node*>(n))) {
    if (prev != nullptr && t->compare(prev->key, n->key) >= 0) return *why = "keys out of order", -1;
    prev = n;
  }
  return check_node(t, tp, why);
}

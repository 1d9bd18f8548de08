// Singly linked lists of heap strings shared by the resource classes. A list
// is a pointer to its first node; null is the empty list. Nodes and their
// strings come from malloc and are released only by freestrlst.
#pragma once

struct strent {
    char* str;     // NUL-terminated, owned by the node
    strent* next;  // null at the tail
};

// The tokens of `string` split at every `separator`, as a new list; null for a
// null or empty string (or when memory runs out). Consecutive separators give
// empty tokens, a leading one a leading empty token; one trailing separator
// gives no trailing token ("a,b," -> a, b; "," -> one empty token).
strent* parsestr(const char* string, char separator);

// Frees every node and its string; a null list is ignored.
void freestrlst(strent* list);

// 1 when some node's string equals `string` (strcmp), else 0 (also for a null
// list or string).
int checkstrinlist(const char* string, const strent* list);

// A one-node list holding a copy of `string`; null for a null string or when
// memory runs out.
strent* createstrent(const char* string);

// Links `node` (or a whole list) behind the last node of `list`; does nothing
// when `list` is null, so a caller holding an empty list uses the node as head.
void addstrtolst(strent* list, strent* node);

// Appends a copy of `string` unless the list holds it already: -1 for a null
// list (it never starts one) or when memory runs out, 0 when already there,
// 1 when appended at the tail.
int addstrifuniqtolist(const char* string, strent* list);

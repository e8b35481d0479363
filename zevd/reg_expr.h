// Pattern lists: the lines of one event file. Built before the list of event sets is shared and not
// changed afterwards.
#pragma once

#include <regex.h>

#include <cstdint>

#include "list.h"

namespace zevd {

/// One pattern line.
struct RegExNode {
  char* jix_name;         ///< first field; kept, but of no effect
  int priority;           ///< of the event that a match posts
  int case_sensitive;     ///< third field as a number; kept, but of no effect
  char* pattern;          ///< the text as written, a POSIX extended regular expression
  regex_t* comp_regex;    ///< compiled, owned; null in a list for the matcher
  bool any_case = false;  ///< the third field is "0": case does not matter
  bool left_out = false;  ///< too much for the matcher; the thread "cons_mon" only
};

struct RegExListElem {
  RegExNode* node;
  RegExListElem* prev;
  RegExListElem* next;
};

struct RegExFilter;

/// In file order.
struct RegExList : List<RegExListElem, &RegExListElem::node> {
  /// Owned; names the patterns that are worth trying on a line. Made when a file has been read and
  /// dropped when the list changes; without one every pattern is tried, with the same result.
  RegExFilter* filter = nullptr;

  /// Not 0: one of the patterns is hard (hard_pattern.h), so none is compiled here and the matcher
  /// (matcher.h) knows the list by this number, which no other list had before.
  uint32_t matcher_set = 0;
};

// Allocation failures are reported, with the "Out of memory" event, and give null or -1.

/// Copies the texts; owns `comp_regex` once it has succeeded.
RegExNode* NewRegExNode(const char* jix_name, int priority, int case_sensitive, const char* pattern,
                        regex_t* comp_regex);
void FreeRegExNode(RegExNode* node);
RegExList* NewRegExList(const char* list_name);
void InitRegExList(RegExList* list, const char* list_name);

/// Appends at the tail. 0 or -1.
int AddRegExToList(RegExNode* node, RegExList* list);

/// Unlinks the node and does not free it. A node that is not there ends the process.
int RemoveRegExFromList(RegExNode* node, RegExList* list);

/// Removes and frees every node.
void EmptyRegExList(RegExList* list);
void FreeRegExList(RegExList* list);

/// Empties the list and fills it from the file. Malformed lines and bad expressions are reported by
/// line number and left out; in a list for the matcher, expressions are judged when it has seen
/// them. 0, or -1 when the file cannot be opened or memory runs out; memory that is missing for the
/// filter alone costs nothing but time and is not reported.
int ParseRegExFile(const char* filename, RegExList* regex_list);

/// 1 when a pattern of the list matches one log record, else 0: the first in file order wins. Then
/// `*pattern` is a copy of its text, to be freed by the caller, and `*priority` its priority. The
/// list may be null; one for the matcher matches nothing here.
int MatchPattern(const char* buf, int count, const RegExList* regex_list, char** pattern,
                 int* priority);

/// The name of the first pattern with that text and priority, which is what MatchPattern() gives;
/// the text itself when there is none.
const char* NameOfPattern(const RegExList& regex_list, const char* pattern, int priority);

}  // namespace zevd

#include "reg_expr.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "error.h"
#include "hard_pattern.h"
#include "list_functions.h"
#include "literal_filter.h"

namespace zevd {

/// The filter knows patterns by number; these are the nodes in the same order.
struct RegExFilter {
  LiteralFilter literals;
  std::unique_ptr<const RegExNode*[]> nodes;
};

namespace {

constexpr size_t kTextSize = 8192;
constexpr int kFewestToFilter = 2;  // one pattern is tried in the time that the filter takes
constexpr char kParse[] = "ParseRegExFile";
constexpr char kWordEnds[] = " \n\r";
constexpr char kLineEnds[] = "\n\r";

/// The fields of one pattern line, within the line.
struct PatternLine {
  const char* name = "";
  const char* priority = "";
  const char* case_indicator = "";
  const char* pattern = "";
};

/// How each field after the name ends and what it is called when it is missing.
struct FieldRow {
  const char* PatternLine::*field;
  const char* ends;
  const char* title;
};

constexpr FieldRow kFields[] = {
    {&PatternLine::priority, kWordEnds, "Priority"},
    {&PatternLine::case_indicator, kWordEnds, "Case indicator"},
    {&PatternLine::pattern, kLineEnds, "Pattern"},
};

// Splits a line in place. False when it is blank or malformed.
bool SplitLine(char* line, int line_number, const char* filename, PatternLine* fields) {
  char* rest = nullptr;
  fields->name = strtok_r(line, kWordEnds, &rest);
  if (fields->name == nullptr) return false;
  for (const FieldRow& row : kFields) {
    const char* field = strtok_r(nullptr, row.ends, &rest);
    if (field == nullptr) {
      DEBUG_AS(kParse, kError, "%s missing in line %d of %s\n", row.title, line_number, filename);
      return false;
    }
    fields->*row.field = field;
  }
  return true;
}

void FreeCompiled(regex_t* comp_regex) {
  regfree(comp_regex);
  delete comp_regex;
}

bool IsForAnyCase(const PatternLine& fields) {
  return strcmp(fields.case_indicator, "0") == 0;
}

// 0, or -1 when the expression is bad; the reason is reported.
int Compile(const PatternLine& fields, regex_t* comp_regex) {
  const int case_flag = IsForAnyCase(fields) ? REG_ICASE : 0;
  const int error = regcomp(comp_regex, fields.pattern, REG_EXTENDED | case_flag);
  if (error == 0) return 0;
  char reason[kTextSize];
  regerror(error, comp_regex, reason, sizeof reason);
  DEBUG_AS(kParse, kError, "regcomp() failed for pattern %s : %s\n", fields.pattern, reason);
  return -1;
}

int AppendPattern(const PatternLine& fields, regex_t* comp_regex, RegExList* regex_list) {
  RegExNode* node = NewRegExNode(fields.name, atoi(fields.priority), atoi(fields.case_indicator),
                                 fields.pattern, comp_regex);
  if (node == nullptr) {
    DEBUG_AS(kParse, kError, "NewRegExNode() failed.\n");
    if (comp_regex != nullptr) FreeCompiled(comp_regex);
    return -1;
  }
  node->any_case = IsForAnyCase(fields);
  if (AddRegExToList(node, regex_list) != 0) {
    DEBUG_AS(kParse, kError, "AddRegExToList() failed.\n");
    FreeRegExNode(node);
    return -1;
  }
  return 0;
}

// Makes the list one for the matcher (matcher.h). What has been compiled for it is of no use any
// more.
void HandOver(RegExList* regex_list) {
  static uint32_t last_number = 0;  // lists are read by one thread
  regex_list->matcher_set = ++last_number;
  for (RegExNode* node : Nodes(*regex_list)) {
    FreeCompiled(node->comp_regex);
    node->comp_regex = nullptr;
  }
}

// 0, also for an expression that does not compile, or -1 when memory runs out.
int AddPatternLine(const PatternLine& fields, RegExList* regex_list) {
  if (regex_list->matcher_set == 0 && IsHardPattern(fields.pattern)) HandOver(regex_list);
  if (regex_list->matcher_set != 0) return AppendPattern(fields, nullptr, regex_list);
  auto* comp_regex = new (std::nothrow) regex_t;
  if (comp_regex == nullptr) {
    ReportOutOfMemory(kParse);
    return -1;
  }
  if (Compile(fields, comp_regex) != 0) {
    delete comp_regex;
    return 0;
  }
  return AppendPattern(fields, comp_regex, regex_list);
}

// Null with errno set on failure. What is found in the directory may be anything: opening a pipe
// must not wait for a writer, and a terminal must not become the daemon's own.
FILE* OpenEventFile(const char* filename) {
  const int fd = open(filename, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd == -1) return nullptr;
  FILE* file = fdopen(fd, "r");
  if (file == nullptr) close(fd);
  return file;
}

// A directory, a pipe or a device gives no lines: some of them would give lines for ever.
bool HasLines(FILE* file, const char* filename) {
  struct stat status {};
  if (fstat(fileno(file), &status) == 0) return S_ISREG(status.st_mode);
  DEBUG_AS(kParse, kError, "fstat( \"%s\", ...) failed : %s\n", filename, strerror(errno));
  return false;
}

int ParseLines(FILE* file, const char* filename, RegExList* regex_list) {
  char line[kTextSize];
  for (int line_number = 1; fgets(line, sizeof line, file) != nullptr; ++line_number) {
    PatternLine fields;
    if (!SplitLine(line, line_number, filename, &fields)) continue;
    if (AddPatternLine(fields, regex_list) != 0) return -1;
  }
  if (ferror(file) != 0) {
    DEBUG_AS(kParse, kError, "fgets( \"%s\", ...) failed : %s\n", filename, strerror(errno));
  }
  return 0;
}

void DropFilter(RegExList* list) {
  delete list->filter;
  list->filter = nullptr;
}

bool FillFilter(const RegExList& list, RegExFilter* filter) {
  const auto count = static_cast<size_t>(list.count);
  const std::unique_ptr<const char*[]> texts(new (std::nothrow) const char*[count]);
  filter->nodes.reset(new (std::nothrow) const RegExNode*[count]);
  if (texts == nullptr || filter->nodes == nullptr) return false;
  size_t number = 0;
  for (const RegExNode* node : Nodes(list)) {
    texts[number] = node->pattern;
    filter->nodes[number++] = node;
  }
  return filter->literals.Build(texts.get(), count);
}

void MakeFilter(RegExList* list) {
  if (list->count < kFewestToFilter || list->matcher_set != 0) return;
  list->filter = new (std::nothrow) RegExFilter;
  if (list->filter != nullptr && !FillFilter(*list, list->filter)) DropFilter(list);
}

// regexec() itself may run out of memory.
bool IsMatch(const RegExNode& node, const char* text) {
  const int error = regexec(node.comp_regex, text, 0, nullptr, 0);
  if (error == 0 || error == REG_NOMATCH) return error == 0;
  char reason[kTextSize];
  regerror(error, node.comp_regex, reason, sizeof reason);
  DEBUG_AS("MatchPattern", kError, "regexec() failed for pattern %s : %s\n", node.pattern, reason);
  return false;
}

// regexec() alone decides; the filter only spares it the patterns that cannot match.
const RegExNode* FirstMatch(const RegExList& list, const char* text) {
  if (list.filter == nullptr) {
    return FindNode(list, [&](const RegExNode& node) { return IsMatch(node, text); });
  }
  const auto count = static_cast<size_t>(list.count);
  const NumberSet candidates = list.filter->literals.Candidates(text);
  for (size_t i = candidates.Next(0); i < count; i = candidates.Next(i + 1)) {
    if (IsMatch(*list.filter->nodes[i], text)) return list.filter->nodes[i];
  }
  return nullptr;
}

}  // namespace

RegExNode* NewRegExNode(const char* jix_name, int priority, int case_sensitive, const char* pattern,
                        regex_t* comp_regex) {
  ENTERING();
  auto* node = new (std::nothrow)
      RegExNode{strdup(jix_name), priority, case_sensitive, strdup(pattern), nullptr};
  if (node == nullptr || node->jix_name == nullptr || node->pattern == nullptr) {
    ReportOutOfMemory(__func__);
    if (node != nullptr) FreeRegExNode(node);
    return nullptr;
  }
  node->comp_regex = comp_regex;
  return node;
}

void FreeRegExNode(RegExNode* node) {
  ENTERING();
  free(node->jix_name);
  free(node->pattern);
  if (node->comp_regex != nullptr) FreeCompiled(node->comp_regex);
  delete node;
}

RegExList* NewRegExList(const char* list_name) {
  ENTERING();
  return NewNamedList(list_name, InitRegExList, ReportOutOfMemory);
}

void InitRegExList(RegExList* list, const char* list_name) {
  ENTERING();
  InitNamedList(list, list_name, ReportOutOfMemory);
  list->filter = nullptr;
  list->matcher_set = 0;
}

int AddRegExToList(RegExNode* node, RegExList* list) {
  ENTERING();
  RegExListElem* elem = NewElement<RegExList>(node, ReportOutOfMemory);
  if (elem == nullptr) return -1;
  DropFilter(list);
  LinkAtTail(*list, elem);
  zev_debug(kTrace, "%s: Added command to %s.\n", __func__, list->list_name);
  return 0;
}

int RemoveRegExFromList(RegExNode* node, RegExList* list) {
  ENTERING();
  if (!UnlinkNode(*list, node)) {
    INTERNAL_ERROR("%s: node not found in %s\n", __func__, list->list_name);
  }
  DropFilter(list);
  return 0;
}

void EmptyRegExList(RegExList* list) {
  ENTERING();
  EmptyList(list, RemoveRegExFromList, FreeRegExNode);
  list->matcher_set = 0;
}

void FreeRegExList(RegExList* list) {
  ENTERING();
  EmptyRegExList(list);
  FreeListRecord(list);
}

int ParseRegExFile(const char* filename, RegExList* regex_list) {
  ENTERING();
  EmptyRegExList(regex_list);
  FILE* file = OpenEventFile(filename);
  if (file == nullptr) {
    zev_debug(kError, "%s: fopen( \"%s\", ...) failed : %s\n", __func__, filename, strerror(errno));
    return -1;
  }
  const int result = HasLines(file, filename) ? ParseLines(file, filename, regex_list) : 0;
  fclose(file);
  if (result == 0) MakeFilter(regex_list);
  return result;
}

int MatchPattern(const char* buf, int count, const RegExList* regex_list, char** pattern,
                 int* priority) {
  ENTERING();
  char text[kTextSize + 1];
  const size_t length = std::min(static_cast<size_t>(count), kTextSize);
  memcpy(text, buf, length);
  text[length] = '\0';
  if (regex_list == nullptr || regex_list->matcher_set != 0) return 0;
  const RegExNode* match = FirstMatch(*regex_list, text);
  if (match == nullptr) return 0;
  char* text_of_match = strdup(match->pattern);
  if (text_of_match == nullptr) {
    ReportOutOfMemory(__func__);
    return 0;
  }
  *pattern = text_of_match;
  *priority = match->priority;
  return 1;
}

const char* NameOfPattern(const RegExList& regex_list, const char* pattern, int priority) {
  const RegExNode* found = FindNode(regex_list, [&](const RegExNode& node) {
    return node.priority == priority && strcmp(node.pattern, pattern) == 0;
  });
  return found == nullptr ? pattern : found->jix_name;
}

}  // namespace zevd

// Lines that are put together from records, and how records are shown.
#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "journal/journal_fields.h"
#include "journal_lines.h"
#include "journal_text.h"

namespace zevctl {
namespace {

using journal::Field;
using journal::Kind;
using testing::ElementsAre;
using testing::IsEmpty;

/// Hands records to an assembler and keeps its lines as "console:text", "..." behind a piece.
class Assembly {
 public:
  explicit Assembly(LineAssembler::HeadFinder head = nullptr)
      : assembler_([this](const PrintedLine& line) { Keep(line); }, std::move(head)) {}

  void Print(size_t console, std::string_view text) { Give(Kind::kOutput, console, text); }

  void Give(Kind kind, std::optional<size_t> console, std::string_view payload = "") {
    journal::Record record;
    record.position.offset = ++offset_;
    record.header.kind = kind;
    record.header.wall = static_cast<int64_t>(offset_) * 1000;
    record.console = console;
    record.payload = payload;
    assembler_.Take(record);
  }

  void Finish() { assembler_.Finish(); }

  std::vector<std::string> Lines() { return std::exchange(lines_, {}); }
  const std::vector<int64_t>& walls() const { return walls_; }

 private:
  void Keep(const PrintedLine& line) {
    lines_.push_back(std::to_string(line.console) + ":" + std::string(line.text) +
                     (line.is_complete ? "" : "..."));
    walls_.push_back(line.wall);
  }

  LineAssembler assembler_;
  std::vector<std::string> lines_;
  std::vector<int64_t> walls_;
  uint64_t offset_ = 0;
};

TEST(LineAssembler, JoinsWhatCameInPieces) {
  Assembly assembly;
  assembly.Print(0, "log");
  assembly.Print(0, "in: ");
  EXPECT_THAT(assembly.Lines(), IsEmpty());
  assembly.Print(0, "anna\nwelcome\n");
  EXPECT_THAT(assembly.Lines(), ElementsAre("0:login: anna", "0:welcome"));
  EXPECT_THAT(assembly.walls(), ElementsAre(3000, 3000));
}

TEST(LineAssembler, KeepsConsolesApart) {
  Assembly assembly;
  assembly.Print(0, "a");
  assembly.Print(1, "b");
  assembly.Print(0, "A\n");
  assembly.Print(1, "B\n");
  EXPECT_THAT(assembly.Lines(), ElementsAre("0:aA", "1:bB"));
}

TEST(LineAssembler, TakesEveryKindOfLineEndForOne) {
  for (const std::string end : {"\n", "\r", "\r\n", "\r\r\n"}) {
    Assembly assembly;
    for (const char byte : "one" + end + "two" + end) assembly.Print(0, {&byte, 1});
    EXPECT_THAT(assembly.Lines(), ElementsAre("0:one", "0:two"));
  }
}

TEST(LineAssembler, KeepsEmptyLines) {
  Assembly assembly;
  assembly.Print(0, "\r\n\none\r\n\r\n\n\rtwo\n");
  EXPECT_THAT(assembly.Lines(), ElementsAre("0:", "0:", "0:one", "0:", "0:", "0:two"));
}

TEST(LineAssembler, LeavesOutWhatIsNoText) {
  Assembly assembly;
  assembly.Print(0, std::string_view("a\0b\xFF", 4));
  assembly.Print(0, "\xFD");
  assembly.Print(0,
                 "\x01"
                 "c\xFF\xFF"
                 "d\xFF\xF1"
                 "e\n");
  EXPECT_THAT(assembly.Lines(), ElementsAre("0:abc\xFF"
                                            "de"));
}

TEST(LineAssembler, KeepsALetterThatOnlyLooksLikeACommand) {
  Assembly assembly;
  assembly.Print(0,
                 "\xFF"
                 "x\n");
  EXPECT_THAT(assembly.Lines(), ElementsAre("0:\xFFx"));
}

TEST(LineAssembler, HandsOverTheLinesInTheMakingInTheirOrder) {
  Assembly assembly;
  assembly.Print(2, "first");
  assembly.Print(0, "last");
  assembly.Print(1, "whole\n");
  assembly.Finish();
  EXPECT_THAT(assembly.Lines(), ElementsAre("1:whole", "2:first...", "0:last..."));
  assembly.Finish();
  EXPECT_THAT(assembly.Lines(), IsEmpty());
}

TEST(LineAssembler, EndsALineWhereTheOutputWasInterrupted) {
  Assembly assembly;
  assembly.Print(0, "reboot");
  assembly.Print(1, "login: ");
  assembly.Give(Kind::kLost, 0);
  assembly.Print(0, "BIOS\n");
  EXPECT_THAT(assembly.Lines(), ElementsAre("0:reboot...", "0:BIOS"));
  assembly.Give(Kind::kStopped, std::nullopt);
  EXPECT_THAT(assembly.Lines(), ElementsAre("1:login: ..."));
}

TEST(LineAssembler, GoesOnWhereSomebodyOnlyCameOrWent) {
  Assembly assembly;
  assembly.Print(0, "log");
  assembly.Give(Kind::kAttached, 0);
  assembly.Give(Kind::kLost, 1);
  assembly.Print(0, "in\n");
  EXPECT_THAT(assembly.Lines(), ElementsAre("0:login"));
}

TEST(LineAssembler, CutsALineThatNeverEnds) {
  Assembly assembly;
  assembly.Print(0, std::string(kLongestPrintedLine + 1, 'x') + "\n");
  EXPECT_THAT(assembly.Lines(),
              ElementsAre("0:" + std::string(kLongestPrintedLine, 'x') + "...", "0:x"));
}

TEST(LineAssembler, AsksForTheStartOfEachConsolesFirstLine) {
  std::vector<size_t> asked;
  Assembly assembly([&](const journal::Record& record) {
    asked.push_back(*record.console);
    return std::string(*record.console == 0 ? "older\nlog" : "done\r");
  });
  assembly.Print(0, "in\n");
  assembly.Print(1, "\nnext\n");
  assembly.Print(0, "more\n");
  EXPECT_THAT(assembly.Lines(), ElementsAre("0:login", "1:next", "0:more"));
  EXPECT_THAT(asked, ElementsAre(0, 1));
}

// ---- Records in words ---------------------------------------------------------------------------

/// A record with fields.
class Made {
 public:
  explicit Made(Kind kind) { record_.header.kind = kind; }

  Made& With(Field field, std::string_view text) {
    journal::FieldWriter writer(room_ + length_, sizeof room_ - length_);
    writer.Add(field, text);
    length_ += writer.length();
    return *this;
  }
  Made& With(Field field, int64_t number) {
    journal::FieldWriter writer(room_ + length_, sizeof room_ - length_);
    writer.AddNumber(field, number);
    length_ += writer.length();
    return *this;
  }

  std::string Text() {
    record_.payload = {room_, length_};
    return RecordText(record_);
  }

 private:
  journal::Record record_;
  char room_[512];
  size_t length_ = 0;
};

TEST(RecordText, SaysWhoDidIt) {
  EXPECT_EQ(Made(Kind::kAttached)
                .With(Field::kUser, "ann")
                .With(Field::kFrom, "10.0.0.5")
                .With(Field::kGivenUser, "boss")
                .With(Field::kMode, "sh")
                .Text(),
            "ann@10.0.0.5 (as boss) attached (shared)");
  EXPECT_EQ(Made(Kind::kDisabled).Text(), "disabled");
  EXPECT_EQ(Made(Kind::kDisabled).With(Field::kUser, "ann").Text(), "disabled by ann");
}

TEST(RecordText, SaysWhatIsMissingAndWhy) {
  EXPECT_EQ(Made(Kind::kGap)
                .With(Field::kCount, int64_t{1})
                .With(Field::kBytes, int64_t{30})
                .With(Field::kReason, "the disk is full")
                .Text(),
            "gap: 1 record (30 bytes) could not be kept: the disk is full");
  EXPECT_EQ(Made(Kind::kLost).With(Field::kReason, "Connection reset by peer").Text(),
            "the connection was lost: Connection reset by peer");
}

TEST(RecordText, TellsWhichWayTheClockWasSet) {
  constexpr int64_t kHour = 3'600'000'000'000;
  const auto text = [](int64_t before, int64_t after) {
    return Made(Kind::kClockStep).With(Field::kBegin, before).With(Field::kEnd, after).Text();
  };
  EXPECT_THAT(text(10 * kHour, 8 * kHour),
              testing::StartsWith("the clock was set back by 2 hours"));
  EXPECT_THAT(text(0, kHour), testing::StartsWith("the clock was set forward by 1 hour,"));
}

TEST(RecordText, NamesAKindThatItDoesNotKnow) {
  EXPECT_EQ(Made(static_cast<Kind>(99)).Text(), "a record of an unknown kind: 99");
}

TEST(StampJson, HasNanosecondsBefore1970Too) {
  EXPECT_EQ(StampJson(0), "1970-01-01T00:00:00.000000000Z");
  EXPECT_EQ(StampJson(-1), "1969-12-31T23:59:59.999999999Z");
  EXPECT_EQ(StampJson(1'763'780'325'123'456'789), "2025-11-22T02:58:45.123456789Z");
}

}  // namespace
}  // namespace zevctl

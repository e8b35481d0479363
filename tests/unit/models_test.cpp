#include "models.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "debug_support.h"
#include "failure_support.h"
#include "file_support.h"
#include "paths.h"

using namespace zevd;

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;

constexpr char kPath[] = "root/config/models";

class ModelsTest : public ::testing::Test {
 protected:
  ~ModelsTest() override {
    for (int i = 0; i < models_.count; ++i) {
      free(const_cast<char*>(models_.m[i].model));
      free(const_cast<char*>(models_.m[i].series));
    }
  }

  int Load(std::string_view content) {
    test::WriteFile(kPath, content);
    return LoadModels(&models_);
  }

  // Series and model of every entry.
  std::vector<std::pair<std::string, std::string>> Entries() const {
    std::vector<std::pair<std::string, std::string>> entries;
    for (int i = 0; i < models_.count; ++i) {
      entries.emplace_back(models_.m[i].series, models_.m[i].model);
    }
    return entries;
  }

  test::StationRoot root_;
  ModelList models_{};
};

// ---- LoadModels ---------------------------------------------------------------------------------

TEST_F(ModelsTest, IsTheFileInTheConfigurationDirectory) {
  EXPECT_STREQ(kModelsFile, QOR_ROOT "/config/models");
}

TEST_F(ModelsTest, ReadsSeriesAndModel) {
  EXPECT_EQ(Load("PX|M100\nA|A200\n"), 0);
  EXPECT_THAT(Entries(), ElementsAre(Pair("PX", "M100"), Pair("A", "A200")));
}

TEST_F(ModelsTest, LastLineNeedsNoNewline) {
  EXPECT_EQ(Load("PX|M100"), 0);
  EXPECT_THAT(Entries(), ElementsAre(Pair("PX", "M100")));
}

TEST_F(ModelsTest, SkipsCommentsAndEmptyLines) {
  EXPECT_EQ(Load("# PX|M1\n\n\r\n#\nPX|M2\n"), 0);
  EXPECT_THAT(Entries(), ElementsAre(Pair("PX", "M2")));
}

TEST_F(ModelsTest, CommentBeginsInTheFirstColumnOnly) {
  EXPECT_EQ(Load(" #PX|M1\nPX|#M2\n"), 0);
  EXPECT_THAT(Entries(), ElementsAre(Pair(" #PX", "M1"), Pair("PX", "#M2")));
}

TEST_F(ModelsTest, CarriageReturnEndsTheModel) {
  EXPECT_EQ(Load("PX|M100\r\nA|A2\rrest\n"), 0);
  EXPECT_THAT(Entries(), ElementsAre(Pair("PX", "M100"), Pair("A", "A2")));
}

TEST_F(ModelsTest, SpacesAndTabsBelongToTheParts) {
  EXPECT_EQ(Load("PX |M100\n PX| M 100 \n\tA|\tA1\n"), 0);
  EXPECT_THAT(Entries(),
              ElementsAre(Pair("PX ", "M100"), Pair(" PX", " M 100 "), Pair("\tA", "\tA1")));
}

TEST_F(ModelsTest, LeadingBarsAreSkipped) {
  EXPECT_EQ(Load("|PX|M1\n|||PX|M2\n"), 0);
  EXPECT_THAT(Entries(), ElementsAre(Pair("PX", "M1"), Pair("PX", "M2")));
}

TEST_F(ModelsTest, ModelIsTheRestOfTheLineBarsIncluded) {
  EXPECT_EQ(Load("PX|M1|M2|\nPX||M3\n"), 0);
  EXPECT_THAT(Entries(), ElementsAre(Pair("PX", "M1|M2|"), Pair("PX", "|M3")));
}

TEST_F(ModelsTest, LineWithoutBothPartsIsIgnoredSilently) {
  const test::DebugCapture capture(kInfo);
  EXPECT_EQ(Load("PX\nPX|\nPX|\r\n|M1\n|\n||\n|||\r\nA|A1\n"), 0);
  EXPECT_THAT(Entries(), ElementsAre(Pair("A", "A1")));
  EXPECT_THAT(capture.Messages(), IsEmpty());
}

TEST_F(ModelsTest, TwentyEntriesAreTaken) {
  std::string content;
  for (int i = 0; i < 20; ++i) content += "PX|M" + std::to_string(i) + "\n";
  EXPECT_EQ(Load(content), 0);
  EXPECT_EQ(models_.count, 20);
  EXPECT_STREQ(models_.m[19].model, "M19");
}

TEST_F(ModelsTest, EntriesBeyondTheTwentiethAreIgnored) {
  std::string content = "# twenty-one\n";
  for (int i = 0; i < 21; ++i) content += "PX|M" + std::to_string(i) + "\n";
  content += "PX|LAST\n";
  EXPECT_EQ(Load(content), 0);
  EXPECT_THAT(Entries(), SizeIs(20));
  EXPECT_STREQ(models_.m[19].model, "M19");
  EXPECT_EQ(IsPellox("M20", &models_), 0);
  EXPECT_EQ(IsPellox("LAST", &models_), 0);
}

TEST_F(ModelsTest, LineIsReadInPiecesOf8191Bytes) {
  const std::string first = "PX|" + std::string(8188, 'a');
  EXPECT_EQ(Load(first + "A|A1\n"), 0);
  EXPECT_THAT(Entries(), ElementsAre(Pair("PX", std::string(8188, 'a')), Pair("A", "A1")));
}

TEST_F(ModelsTest, MissingFileIsReported) {
  const test::DebugCapture capture(0);
  EXPECT_EQ(LoadModels(&models_), 1);
  EXPECT_EQ(models_.count, 0);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("LoadModels: fopen( root/config/models, ...) failed : "
                          "No such file or directory\n"));
  EXPECT_EQ(IsPellox("M100", &models_), 0);
}

TEST_F(ModelsTest, FileWithoutModelsIsReported) {
  for (const char* content : {"", "\n", "# PX|M1\n", "PX\n|M1\n"}) {
    const test::DebugCapture capture(0);
    EXPECT_EQ(Load(content), 1);
    EXPECT_THAT(capture.Messages(),
                ElementsAre("LoadModels: No models found in root/config/models!!\n"));
  }
}

TEST_F(ModelsTest, RunningOutOfMemoryLosesTheEntry) {
  for (int failing : {1, 2}) {
    const test::DebugCapture capture(0);
    test::WriteFile(kPath, "PX|M1\nPX|M2\n");
    {
      const test::FailAllocation failure(failing);
      EXPECT_EQ(LoadModels(&models_), 0);
    }
    EXPECT_EQ(test::Reports(capture.Messages()).at(0),
              "LoadModels: malloc() failed : Cannot allocate memory\n");
  }
  EXPECT_THAT(Entries(), ElementsAre(Pair("PX", "M2"), Pair("PX", "M2")));
}

// ---- IsPellox -----------------------------------------------------------------------------------

TEST_F(ModelsTest, ModelOfTheSeriesIsPellox) {
  Load("PX|M100\nA|A200\n");
  EXPECT_EQ(IsPellox("M100", &models_), 1);
  EXPECT_EQ(IsPellox("A200", &models_), 0);
  EXPECT_EQ(IsPellox("M10", &models_), 0);
  EXPECT_EQ(IsPellox("M1000", &models_), 0);
  EXPECT_EQ(IsPellox("", &models_), 0);
}

TEST_F(ModelsTest, CaseDoesNotMatter) {
  Load("px|m100\nPx|M200\n");
  EXPECT_EQ(IsPellox("M100", &models_), 1);
  EXPECT_EQ(IsPellox("m200", &models_), 1);
}

TEST_F(ModelsTest, SpaceAfterTheSeriesMatters) {
  Load("PX |M100\nPX| M200\nPXX|M300\nP|M400\n");
  for (const char* model : {"M100", "M200", "M300", "M400"}) {
    EXPECT_EQ(IsPellox(model, &models_), 0) << model;
  }
  EXPECT_EQ(IsPellox(" M200", &models_), 1);
}

TEST_F(ModelsTest, LaterEntryOfTheSameModelCounts) {
  Load("A|M100\nPX|M100\n");
  EXPECT_EQ(IsPellox("M100", &models_), 1);
}

TEST_F(ModelsTest, NothingIsPelloxWithoutModels) {
  EXPECT_EQ(IsPellox("M100", &models_), 0);
}

TEST_F(ModelsTest, EveryFunctionWritesItsEntryLine) {
  test::WriteFile(kPath, "PX|M100\n");
  const test::DebugCapture capture(kTrace);
  LoadModels(&models_);
  IsPellox("M100", &models_);
  EXPECT_THAT(capture.Messages(), ElementsAre("Entering LoadModels\n", "Entering IsPellox\n"));
}

}  // namespace

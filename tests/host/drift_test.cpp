#include "base/whole_file.h"
#include "host/results/drift.h"
#include "support/folder.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

using namespace vexo;

class Drifting : public testing::Test {
protected:
    /// A result's folder with as much of a report as drift reads.
    std::string result(const std::string& name, const Json& time, double median, bool tested = true)
    {
        std::filesystem::create_directories(folder / name);
        Json report { { "rows", { { "tested", tested } } } };
        if (tested) report["rows"].update({ { "found", 0.8 }, { "median", median }, { "scatter", 0.3 } });
        if (!time.is_null()) report["time"] = time;
        EXPECT_TRUE(write_file(folder / (name + "/report.json"), json_text(report)));
        return folder / name;
    }

    Folder folder;
};

TEST_F(Drifting, SortsByTheReportsOwnTimeAndNamesTrendAndAlarm)
{
    const std::string late = result("late", "2026-03-03T12:00:00Z", 0.35),
                      dull = result("dull", "2026-03-02T18:00:00Z", 0, false),
                      early = result("early", "2026-03-01T12:00:00Z", 0.05),
                      middle = result("middle", "2026-03-02T12:00:00Z", 0.2);
    const Drift drift = find_drift({ late, dull, early, middle });
    ASSERT_EQ(drift.results.size(), 4U);
    EXPECT_EQ(drift.results[0].folder, early);
    EXPECT_EQ(drift.results[1].date, "2026-03-02 12:00");
    EXPECT_FALSE(drift.results[2].tested || drift.results[2].off);
    EXPECT_NEAR(drift.slope.value_or(0), 0.15, 1e-6);
    ASSERT_TRUE(drift.alarm);
    EXPECT_EQ(drift.results[*drift.alarm].folder, late);
    EXPECT_TRUE(drift.expected.empty());

    const Drift before = find_drift({ early, middle, result("next", "2026-03-02T18:00:00Z", 0.2375) });
    EXPECT_FALSE(before.alarm);
    EXPECT_EQ(before.expected, "2026-03-03 04:00");
    EXPECT_FALSE(find_drift({ early, middle }).slope);
}

TEST_F(Drifting, RefusesATimeThatIsNoneAndReportsWithoutRowsAndTakesTheFilesTimeForOlderOnes)
{
    EXPECT_THROW(find_drift({ result("odd", "yesterday", 0) }), Failure);
    EXPECT_EQ(find_drift({ result("old", nullptr, 0.1) }).results[0].date.size(), 16U);
    std::filesystem::create_directories(folder / "bare");
    EXPECT_TRUE(write_file(folder / "bare/report.json", "{}"));
    EXPECT_THROW(find_drift({ folder / "bare" }), Failure);
}

} // namespace

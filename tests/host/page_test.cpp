#include "base/text.h"
#include "host/reports/cloud_view.h"
#include "host/reports/html.h"

#include <gtest/gtest.h>

using namespace vexo;

TEST(Html, TextsOfFilesNeverEndTheElementTheyStandIn)
{
    const std::string hostile = "</script><!--'\"&\xff\xe2\x80\xa8";
    EXPECT_EQ(escaped(hostile), "&lt;/script&gt;&lt;!--&#39;&quot;&amp;\xef\xbf\xbd\xe2\x80\xa8");
    const std::string data = script_data({ { "name", hostile } });
    EXPECT_EQ(data.find_first_of("<>&\xe2"), std::string::npos) << data;
    EXPECT_EQ(Json::parse(data)["name"], "</script><!--'\"&\xef\xbf\xbd\xe2\x80\xa8");
    EXPECT_EQ(sentence_html("pass --depth, or <b>"), "Pass <span class=\"option\">--depth</span>, or &lt;b&gt;.");
}

TEST(Text, NumbersThatRoundToZeroHaveNoSign)
{
    EXPECT_EQ(number(-0.004, 2) + number(-0.005001, 2) + number(-0.4, 0) + number(-10.0, 0), "0.00-0.010-10");
}

TEST(Html, Base64IsThatOfRfc4648)
{
    const std::string text = "foobar", expected[] = { "", "Zg==", "Zm8=", "Zm9v", "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy" };
    for (std::size_t n = 0; n <= text.size(); ++n)
        EXPECT_EQ(base64({ text.begin(), text.begin() + static_cast<std::ptrdiff_t>(n) }), expected[n]);
}

TEST(CloudView, TakesTheDensestGridOfAtMostAsManyPointsAsThePageHolds)
{
    const cv::Mat all(120, 200, CV_32F, cv::Scalar(1.0F));
    const auto count = [&all](const ViewGrid& grid) {
        int n = 0;
        for (int y = 0; y < all.rows; ++y)
            for (int x = 0; x < all.cols; ++x)
                n += grid.holds(y, x) ? 1 : 0;
        return n;
    };
    for (const int most : { 24000, 23999, 11999, 5999, 2999, 100, 1 }) {
        const ViewGrid grid = choose_grid(all, most);
        EXPECT_LE(count(grid), most);
        const ViewGrid denser { grid.step - (grid.half ? 0 : 1), !grid.half };
        EXPECT_TRUE(denser.step == 0 || count(denser) > most) << most;
    }
}

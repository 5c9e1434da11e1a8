#include "public/common/PlainJSON.h"

#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>
#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>

namespace skein {
namespace {

namespace json = boost::json;

TEST(PlainJSONTest, writesNumbersWithoutExponents) {
    const json::object object{{"rate", 12.5},
                              {"none", 0.0},
                              {"time", 1795452204.797},
                              {"small", 0.000001},
                              {"large", 1e21},
                              {"count", -17},
                              {"all", std::uint64_t{18446744073709551615U}},
                              {"nan", std::numeric_limits<double>::quiet_NaN()}};
    EXPECT_EQ(plainJSON(object),
              R"({"rate":12.5,"none":0,"time":1795452204.797,"small":0.000001,"large":1000000000000000000000,)"
              R"("count":-17,"all":18446744073709551615,"nan":null})");
    for (const double number : {std::numeric_limits<double>::denorm_min(), std::numeric_limits<double>::max(),
                                -2.2250738585072014e-308, 0.1 + 0.2})
        EXPECT_EQ(std::strtod(plainJSON(json::value(number)).c_str(), nullptr), number);
}

TEST(PlainJSONTest, writesAllElse) {
    const char* const text = R"([{},[],null,true,"a\"b\n\u0001é",{"k\"":[1,{"x":[false]}]}])";
    EXPECT_EQ(plainJSON(json::parse(text)), text);
}

TEST(PlainJSONTest, isJSONWhateverBytesAStringHolds) {
    const json::object object{{"\xFF", "a\xC3(\xED\xA0\x80\xF5\x01é"}};
    EXPECT_EQ(plainJSON(object), "{\"\uFFFD\":\"a\uFFFD(\uFFFD\uFFFD\uFFFD\uFFFD\\u0001é\"}");
    EXPECT_EQ(plainJSONOfBytes({{"path", "\xFF"}}), "{\"path\":\"\xFF\"}");
}

}  // namespace
}  // namespace skein

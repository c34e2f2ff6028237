// What is asked: URLs, templates, variables, scenario files.
#include <iterator>
#include <set>

#include "CVEKLoadScenarioReader.h"
#include "LoadTest.h"
#include "VEKLoadInput.h"
#include "VEKLoadOptions.h"
#include "VEKLoadTargets.h"
#include "VEKLoadUrl.h"
#include "VEKTlsOption.h"

namespace {

using std::chrono::milliseconds;

TEST(LoadUrl, TakesThemApart) {
    const std::pair<const char*, const char*> cases[] = {
        {"http://a", "a 80 a /"},
        {"https://a.b-c:8443/x/y?z=1&q#part", "a.b-c 8443 a.b-c:8443 /x/y?z=1&q"},
        {"https://[::1]:443?q", "::1 443 [::1] /?q"},
        {"http://127.0.0.1:8080/", "127.0.0.1 8080 127.0.0.1:8080 /"},
        {"ftp://a", R"("ftp://a" is no URL: it begins with neither http:// nor https://)"},
        {"http://", R"("http://" is no URL: "" is no host with a port, "name:8443" or "[::1]:8443")"},
        {"http://a:0/", "is no host with a port"},
        {"http://a:65536", "is no host with a port"},
        {"http://[::1", "is no host with a port"},
        {"http://[::g]/", "is no host with a port"},
        {"http://[::1]x", "is no host with a port"},
        {"http://a b/", R"("http://a b/" is no URL: it holds a blank or a control character)"},
        {"http://user@a/", "is no host with a port"},
    };
    for (const auto& [text, wanted] : cases) {
        VEK_ST_LOAD_URL url;
        std::string error;
        const bool isGood = VEK_LOAD_READ_URL(text, url, error);
        const std::string parts = url.host_ + " " + std::to_string(url.port_) + " " + url.authority_ + " " + url.path_;
        EXPECT_LT(0U, Count(isGood ? parts : error, wanted)) << text << ": " << parts << error;
    }
    const std::pair<const char*, int64_t> times[] = {{"250ms", 250000}, {"1.5s", 1500000}, {"2m", 120000000},
                                                     {"3", 3000000},    {"10us", 10},      {"-1s", -1},
                                                     {"1 s", -1},       {"x", -1},         {"1e9s", -1}};
    for (const auto& [text, wanted] : times) {
        std::chrono::microseconds time{-1};
        EXPECT_EQ(wanted >= 0, VEK_LOAD_READ_TIME(text, time)) << text;
        EXPECT_EQ(wanted, time.count()) << text;
    }
}

// The run that a command line asks for, or why there is none.
json Plan(const std::string& words) {
    std::stringstream stream("vekload " + words + (Count(words, "://") == 0 ? " http://a/p" : ""));
    const std::vector<std::string> texts{std::istream_iterator<std::string>(stream), {}};
    std::vector<char*> arguments;
    for (const std::string& text : texts) { arguments.push_back(const_cast<char*>(text.c_str())); }
    VEK_ST_LOAD_OPTIONS options;
    VEK_ST_LOAD_PLAN plan;
    std::string error = "refused";
    const int status = VEK_LOAD_READ_OPTIONS(static_cast<int>(arguments.size()), arguments.data(), options);
    if (status != VEK_LOAD_GO_ON || !VEK_LOAD_MAKE_PLAN(options, plan, error)) { return error; }
    const CVEKLoadSchedule schedule = VEK_LOAD_MAKE_SCHEDULE(options);
    const VEK_ST_HTTP_SETTINGS& settings = plan.settings_;
    const VEK_ST_HTTP_TARGET& target = plan.targets_[0];
    json told = {{"count", schedule.GetCount()},
                 {"second", schedule.CountDue(std::chrono::seconds(1))},  // due in the first one
                 {"ms", schedule.GetLength() / milliseconds(1)},
                 {"warm", plan.warmUp_ / milliseconds(1)},
                 {"hard", {plan.connections_, plan.streams_, plan.threads_, plan.users_, plan.requestsOfConnection_}},
                 {"timeout", plan.timeout_.count()},
                 {"windows", {settings.streamWindow_, settings.connectionWindow_}},
                 {"frames", {settings.headerTableBytes_, settings.frameBytes_}},
                 {"peer", {target.host_, target.port_, target.family_, target.unixPath_, target.isUpgrade_}},
                 {"names", {target.name_, target.authority_}},
                 {"targets", plan.targets_.size()},
                 {"share", {plan.share_.index_, plan.share_.of_}}};
    for (const VEK_ST_LOAD_FLOW& flow : plan.scenario_.flows_) {
        const VEK_ST_LOAD_STAGE& stage = flow.stages_[0];
        const VEK_ST_HTTP_REQUEST request = stage.Render({});
        std::string text =
            flow.name_ + " x" + std::to_string(flow.weight_) + " to " + std::to_string(stage.target_) + ": ";
        text += request.method_ + " " + request.authority_ + request.path_;
        for (const auto& [name, value] : request.fields_) { text.append(" ").append(name).append("=").append(value); }
        told["flows"].push_back(text + " " + request.body_.GetText());
    }
    if (const VEK_ST_TLS_OPTIONS* tls = target.tls_.get()) {
        told["tls"] = {tls->minVersion_ & 0xf, tls->maxVersion_ & 0xf, tls->caFile_,  tls->isVerifying_,
                       tls->isClientResuming_, tls->keyLogFile_,       tls->ciphers_, tls->suites_};
        for (const auto& identity : tls->identities_) {
            told["tls"].insert(told["tls"].end(), {identity.certificateFile_, identity.keyFile_});
        }
    }
    return told;
}

TEST(LoadOptions, MakeThePlan) {
    const json usual = json::parse(R"({"count": 10, "second": 0, "ms": 9223372036854, "warm": 0,
        "hard": [1, 100, 0, 0, 0], "timeout": 5000, "windows": [1073741824, 1073741824], "frames": [4096, 16384],
        "peer": ["a", 80, 0, "", false], "names": ["a", "a"], "targets": 1, "share": [0, 1],
        "flows": ["GET http://a/p x1 to 0: GET /p "]})");
    const std::pair<const char*, const char*> cases[] = {
        {"", "{}"},
        {"-n 7 -c 3 -m 5 -t 2 --users 9 --churn 11", R"({"count": 7, "hard": [3, 5, 2, 9, 11]})"},
        {"-D 2s --warm-up 3s --timeout 13", R"({"count": 1000000000000, "ms": 5000, "warm": 3000, "timeout": 13})"},
        {"--rate 20 -n 5", R"({"count": 5, "second": 20})"},
        {"--rate 20 -n 5 --warm-up 500ms -D 1500ms", R"({"count": 5, "second": 20, "ms": 2000, "warm": 500})"},
        {"--ramp 0.001:8:1s", R"({"count": 1000000000000, "second": 5, "ms": 1000})"},
        {"--rate-steps 8:500ms,0.001:2s", R"({"count": 1000000000000, "second": 5, "ms": 2500})"},
        {"--part 1/3 -n 10 -c 8 --users 4", R"({"count": 3, "hard": [3, 100, 0, 1, 0], "share": [1, 3]})"},
        {"--part 2/3 --users 2", "\"--users has to be 3 at least: one for each part\""},
        {"--window 1 --header-table 0 --max-frame 16777215", R"({"windows": [1, 1], "frames": [0, 16777215]})"},
        {"-X PUT -H X-A:b -H :authority:c -H y: -d body",
         R"({"flows": ["PUT http://a/p x1 to 0: PUT c/p x-a=b y= body"]})"},
        {"--body-size 3", R"({"flows": ["POST http://a/p x1 to 0: POST /p xxx"]})"},
        {"-X G@T", "\"-X: \\\"G@T\\\" is no method\""},
        {"http://a http://b:1/x http://a/y https://a --weights 3,1,2,1 -c 5",
         R"({"hard": [2, 100, 0, 0, 0], "targets": 3, "flows": ["GET http://a x3 to 0: GET / ",
             "GET http://b:1/x x1 to 1: GET /x ", "GET http://a/y x2 to 0: GET /y ", "GET https://a x1 to 2: GET / "]})"},
        {"--unix /s --upgrade -4", R"({"peer": ["a", 80, 4, "/s", true]})"},
        {"--connect-to [::1]:81 -6", R"({"peer": ["::1", 81, 6, "", false]})"},
        {"--resolve b:80:c --resolve a:80:[::2] --resolve a:81:d", R"({"peer": ["::2", 80, 0, "", false]})"},
        {"http://[::1]/p --resolve [::1]:80:c", R"({"peer": ["c", 80, 0, "", false], "names": ["::1", "[::1]"],
             "flows": ["GET http://[::1]/p x1 to 0: GET /p "]})"},
        {"--resolve a:80:", "\"--resolve: \\\"a:80:\\\" is not host:port:address\""},
        {"https://a/p --sni s --upgrade", R"({"peer": ["a", 443, 0, "", false], "names": ["s", "a"],
             "flows": ["GET https://a/p x1 to 0: GET /p "], "tls": [3, 4, "", true, true, "", "", ""]})"},
        {"https://a/p --tls-max 1.2 --cacert f --insecure --no-resume --keylog l --ciphers E",
         R"({"peer": ["a", 443, 0, "", false], "flows": ["GET https://a/p x1 to 0: GET /p "],
             "tls": [3, 3, "f", false, false, "l", "E", ""]})"},
        {"https://a/p --tls-min 1.3 --ciphers TLS_X --cert c --key k",
         R"({"peer": ["a", 443, 0, "", false], "flows": ["GET https://a/p x1 to 0: GET /p "],
             "tls": [4, 4, "", true, true, "", "", "TLS_X", "c", "k"]})"},
    };
    for (const auto& [words, changes] : cases) {
        json wanted = usual;
        wanted.merge_patch(json::parse(changes));
        EXPECT_EQ(wanted, Plan(words)) << words;
    }
}

TEST(LoadVariable, DependsOnFlowAndSeedAlone) {
    const auto get = [](const CVEKLoadVariable& variable, uint64_t flow) { return variable.GetValue(flow, 7, 1); };
    EXPECT_EQ("-15", get(CVEKLoadVariable::MakeCounter(5, -10), 2));
    EXPECT_EQ("-1", get(CVEKLoadVariable::MakeRange(-2, 0), 4));
    EXPECT_EQ("9223372036854775807", get(CVEKLoadVariable::MakeRange(INT64_MIN, INT64_MAX), UINT64_MAX));
    std::set<std::string> numbers, texts;
    for (uint64_t flow = 0; flow < 500; ++flow) {
        numbers.insert(get(CVEKLoadVariable::MakeRandom(1, 10), flow));
        texts.insert(get(CVEKLoadVariable::MakeChoice({"a", "b", "c"}), flow));
    }
    EXPECT_EQ(10U, numbers.size());
    EXPECT_EQ(3U, texts.size());
    int same = 0;
    const CVEKLoadVariable random = CVEKLoadVariable::MakeRandom(1, 1000);
    for (uint64_t flow = 0; flow < 100; ++flow) {
        same += random.GetValue(flow, 1, 1) == random.GetValue(flow, 1, 2) ? 1 : 0;
        same += random.GetValue(flow, 1, 1) == random.GetValue(flow, 2, 1) ? 1 : 0;
    }
    EXPECT_GT(10, same);
}

TEST(LoadCsv, ReadsRowsAndRefusesOthers) {
    CVEKLoadCsv csv;
    std::string error;
    ASSERT_TRUE(csv.Parse("name,note\r\na,\"x, \"\"y\"\"\nz\"\n\n\"b\",", error)) << error;
    EXPECT_EQ((std::vector<CVEKLoadCsv::Row>{{"a", "x, \"y\"\nz"}, {"b", ""}}), csv.GetRows());
    const auto once = std::make_shared<CVEKLoadCsv>(csv);
    EXPECT_EQ(2U, CVEKLoadVariable::MakeColumn(once, 1, false).GetLimit());
    EXPECT_EQ("b", CVEKLoadVariable::MakeColumn(once, 0, true).GetValue(5, 0, 0));
    for (const auto& [text, wanted] : std::vector<std::pair<const char*, const char*>>{
             {"a,b\n\"1\n2\",2\n1\n", "line 4: expected 2 fields, found 1"},
             {"a\n\"1", "line 2: expected a quote to close"},
             {"a\n\"1\"2\n", "line 2: expected a quote to close"},
             {"a,b\n", "expected a line with the names"},
             {"", "expected a line with the names"}}) {
        EXPECT_FALSE(csv.Parse(text, error));
        EXPECT_EQ(0U, error.find(wanted)) << error;
    }
}

class LoadScenario : public testing::Test {
  protected:
    bool Read(const std::string& text) {
        folder_.Write("users.csv", "\xef\xbb\xbfname,word\nann,1\nbob,2\n");
        folder_.Write("body", "I am {{u.name}}");
        error_.clear();
        return CVEKLoadScenarioReader().Read(folder_.Write("scenario", text), scenario_, error_);
    }
    const TempDir folder_;
    VEK_ST_LOAD_SCENARIO scenario_;
    std::string error_;
};

const char SCENARIO[] = R"X({"url": "http://a/",
 "variables": {"id": {"counter": {"start": 10}}, "n": {"range": {"from": 1, "to": 3}},
   "r": {"random": {"from": 1, "to": 9}}, "c": {"random": ["x\""]}, "u": {"csv": "users.csv"}},
 "flows": [
  {"name": "f", "weight": 2, "steps": [
    {"name": "first", "method": "POST", "path": "/{{id}}/{{c}}", "body_file": "body", "headers": {"X-Name": "{{u.word}}"},
     "extract": {"h": {"header": "X-H"}, "k": {"cookie": "sid"}, "j": {"json": "/a/0"}, "m": {"regex": "n=(\\d+)"}},
     "expect": {"status": [201, "3xx"], "headers": {"X-H": "v{{id}}"}, "json": {"/a/0": 5, "/b": "t{{id}}"},
       "contains": "n={{id}}"}, "think": {"min": "1ms", "max": "2ms"}},
    {"path": "/{{h}}-{{k}}-{{j}}-{{m}}", "body": {"n": "{{n}}{{c}}"}, "headers": {":authority": "{{u.name}}"}}]},
  {"steps": [{"path": "/plain", "think": "1s"}]}]})X";

const std::string DEEP = std::string(1000000, '[') + std::string(1000000, ']');

TEST_F(LoadScenario, RendersExtractsAndExpects) {
    ASSERT_TRUE(Read(SCENARIO)) << error_;
    EXPECT_EQ(2U, scenario_.GetLimit());
    EXPECT_EQ((std::vector<size_t>{0, 0, 1, 0}), (std::vector<size_t>{scenario_.Choose(0), scenario_.Choose(1),
                                                                      scenario_.Choose(2), scenario_.Choose(3)}));
    const VEK_ST_LOAD_STAGE &first = scenario_.flows_[0].stages_[0], &second = scenario_.flows_[0].stages_[1];
    EXPECT_EQ("flow 2: step 1", scenario_.flows_[1].stages_[0].name_);
    EXPECT_TRUE(scenario_.flows_[1].stages_[0].IsPlain());
    EXPECT_TRUE(first.WantsBody() && !first.IsPlain() && !second.IsPlain());
    std::vector<std::string> values = scenario_.MakeValues(1, 5);
    EXPECT_EQ("/11/x\"", first.path_.Render(values));
    EXPECT_EQ("I am bob", first.body_.Render(values));
    EXPECT_EQ("x-name=2", first.fields_[0].first + "=" + first.fields_[0].second.Render(values));

    VEK_ST_HTTP_RESPONSE response;
    response.status_ = 304;
    response.fields_ = {{"x-h", "v11"}, {"set-cookie", "other=1"}, {"set-cookie", "sid=abc; Path=/"}};
    response.body_ = R"({"a": [5], "b": "t11", "text": "n=11"})";
    const auto failures = [&] {
        CVEKLoadAnswer answer(response);
        std::string all, error, value;
        for (const auto& expectation : first.expectations_) {
            if (!expectation.Check(answer, values, error)) { all += error + "; "; }
        }
        for (const auto& extractor : first.extractors_) {
            if (extractor.Extract(answer, value, error)) {
                values[extractor.GetVariable()] = value;
            } else {
                all += error + "; ";
            }
        }
        return all;
    };
    EXPECT_EQ("", failures());
    EXPECT_EQ("/v11-abc-5-11", second.path_.Render(values));
    EXPECT_EQ("bob {\"n\":\"2x\\\"\"}", second.authority_.Render(values) + " " + second.body_.Render(values));
    response.fields_.Add("content-encoding", "gzip");
    const std::string coded = " (the body has a content-encoding); ";
    EXPECT_EQ("JSON /a/0 is 5" + coded + "JSON /b is t{{id}}" + coded + "body contains n={{id}}" + coded +
                  "the body has a content-encoding; the body has a content-encoding; ",
              failures());
    response.status_ = 200;
    response.fields_.Clear();
    response.body_ = "none";
    EXPECT_EQ(
        "status is 201 or 3xx; header x-h is v{{id}}; JSON /a/0 is 5 (the body is no JSON); JSON /b is t{{id}} "
        "(the body is no JSON); body contains n={{id}}; no header x-h; no cookie sid; the body is no JSON; "
        "no match of n=(\\d+); ",
        failures());
    response.body_ = "{\"a\": 1}";
    EXPECT_EQ(1U, Count(failures(), "nothing at /a/0; "));
    response.body_ = DEEP;
    EXPECT_EQ(3U, Count(failures(), "the body's JSON is nested too deeply"));
    response.body_ = "[1]";
    CVEKLoadAnswer answer(response);
    CVEKLoadExtractor extractor(0);
    std::string value, error;
    EXPECT_TRUE(extractor.FromJson("/99999999999999999999", error) && !extractor.Extract(answer, value, error));
}

TEST_F(LoadScenario, RefusesWithAPlace) {
    const json good = json::parse(SCENARIO);
    const struct {
        const char *path, *value, *error;
    } cases[] = {
        {"/url", "\"x\"", "/url: expected a URL: \"x\" is no URL"},
        {"/flows", "[]", "/flows: expected at least one flow"},
        {"/flows", "3", "/flows: expected an array"},
        {"/flows/0/steps", "[]", "/flows/0/steps: expected at least one step"},
        {"/flows/0/weight", "0", "/flows/0/weight: expected an integer from 1 to 1000000"},
        {"/flows/1/steps/0", "{}", "/flows/1/steps/0: expected a member \"path\""},
        {"/flows/1/steps/0/path", "\"/ x\"", "/flows/1/steps/0/path: expected a path that begins with a slash"},
        {"/flows/1/steps/0/path", "\"/{{h}}\"",
         "/path: expected other text: no variable \"h\"; known here are: c, id, n"},
        {"/flows/1/steps/0/path", "\"/{{id\"", "expected other text: \"{{\" without \"}}\""},
        {"/flows/1/steps/0/think", "5", "/think: expected a time with its unit"},
        {"/flows/0/steps/0/think/max", "\"0s\"", "/think/max: expected a time that is not below \"min\""},
        {"/flows/0/steps/0/body", "\"\"", "/body_file: expected either body or body_file"},
        {"/flows/0/steps/0/body_file", "\"gone\"", "/body_file: expected a file with a body: "},
        {"/flows/0/steps/0/headers", "{\"a b\": \"x\"}", "/headers/a b: expected the name of a header field"},
        {"/flows/0/steps/0/extract/m", "{\"regex\": \"(\"}",
         "/extract/m/regex: expected a regular expression of RE2: "},
        {"/flows/0/steps/0/extract/j", "{\"json\": \"a\"}", "/extract/j/json: expected a JSON pointer"},
        {"/flows/0/steps/0/extract/h", "{}", "/extract/h: expected one of header, cookie"},
        {"/flows/0/steps/0/extract/h", "{\"header\": \"\"}", "/extract/h/header: expected the name of a header"},
        {"/flows/0/steps/0/expect/status", "99", "/expect/status: expected an integer from 100 to 999"},
        {"/flows/0/steps/0/expect/status", "\"2x\"", "/expect/status: expected a status, 200 or \"2xx\""},
        {"/flows/0/steps/0/expect/json", "{\"x\": 1}", "/expect/json/x: expected a JSON pointer"},
        {"/variables/id", "{}", "/variables/id: expected {\"counter\""},
        {"/variables/id", "7", "/variables/id: expected an object"},
        {"/variables/c", "{\"random\": []}", "/variables/c: expected {\"counter\""},
        {"/variables/n/range/to", "0", "/variables/n/range/to: expected an integer from 1 to"},
        {"/variables/u/csv", "\"scenario\"", "/variables/u/csv: expected a CSV file: line "},
        {"/variables/u/csv", "\"gone\"", "/variables/u/csv: expected a CSV file: "},
        {"/variables/a{b", "{\"counter\": {}}", "/variables/a{b: expected a name of its own without braces"},
        {"/variables/u.name", "{\"counter\": {}}", "expected a name of its own"},
    };
    for (const auto& test : cases) {
        const json patch = {{{"op", "add"}, {"path", test.path}, {"value", json::parse(test.value)}}};
        EXPECT_FALSE(Read(good.patch(patch).dump())) << test.path;
        EXPECT_EQ(1U, Count(error_, test.error)) << error_;
    }
    for (const std::string place :
         {"", "/variables/id", "/variables/id/counter", "/variables/n", "/variables/n/range", "/variables/r",
          "/variables/r/random", "/variables/c", "/variables/u", "/flows/0", "/flows/0/steps/0",
          "/flows/0/steps/0/extract/h", "/flows/0/steps/0/expect", "/flows/0/steps/0/think"}) {
        json more = good;
        more[json::json_pointer(place)]["more"] = 1;
        EXPECT_FALSE(Read(more.dump()));
        EXPECT_EQ(1U, Count(error_, ": " + place + "/more: expected no such member; known are ")) << error_;
    }
    for (const auto& [text, error] : {std::pair<std::string, std::string>{"{\"flows\":\n [1,]}", "line 2, column 5: "},
                                      {"[1e999]", "line 1, column 7: number overflow parsing '1e999'"},
                                      {DEEP, "line 1, column 202: values are nested too deeply"}}) {
        EXPECT_FALSE(Read(text));
        EXPECT_EQ(1U, Count(error_, error)) << error_;
    }
    EXPECT_FALSE(CVEKLoadScenarioReader().Read(folder_.Path(), scenario_, error_));
    EXPECT_FALSE(CVEKLoadScenarioReader().Read(folder_.Path("gone"), scenario_, error_));
    EXPECT_EQ(folder_.Path("gone") + ": No such file or directory", error_);
}

}  // namespace

#include "cgi_request.h"

#include <glib.h>
#include <gtest/gtest.h>
#include <map>
#include <unistd.h>

namespace
{

constexpr const char *VARIABLES[] = {
    "CONTENT_LENGTH",
    "CONTENT_TYPE",
    "HTTP_HOST",
    "HTTP_ORIGIN",
    "HTTP_PURPOSE",
    "HTTP_REFERER",
    "HTTP_X_MOZ",
    "QUERY_STRING",
    "HTTP_SEC_FETCH_SITE",
    "HTTP_SEC_PURPOSE",
    "REQUEST_METHOD",
    "HTTP_USER_AGENT",
    "SONOBRIK_MANAGE",
    "SONOBRIK_UPLOAD_MAX",
    "HTTP_ACCEPT_LANGUAGE",
    "HTTP_TRANSFER_ENCODING",
};

using Environment = std::map<std::string, std::string>;

/* Reads a request with this environment and body. */
CgiResult read(const Environment &environment, const std::string &body = "",
               CgiRequest *request = nullptr)
{
    for (const char *name : VARIABLES) {
        g_unsetenv(name);
    }
    for (const auto &[name, value] : environment) {
        g_setenv(name.c_str(), value.c_str(), TRUE);
    }
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    EXPECT_EQ(write(fds[1], body.data(), body.size()), static_cast<ssize_t>(body.size()));
    close(fds[1]);
    CgiRequest local;
    const CgiOutcome outcome = cgi_request_read(request ? request : &local, fds[0]);
    close(fds[0]);
    return outcome.result;
}

CgiResult read_query(const std::string &query, CgiRequest *request = nullptr)
{
    return read({{"REQUEST_METHOD", "GET"}, {"QUERY_STRING", query}}, "", request);
}

Environment make_post(const std::string &length)
{
    return {{"REQUEST_METHOD", "POST"},
            {"CONTENT_TYPE", "application/x-www-form-urlencoded; charset=utf-8"},
            {"CONTENT_LENGTH", length}};
}

CgiResult read_body(const std::string &body, CgiRequest *request = nullptr)
{
    return read(make_post(std::to_string(body.size())), body, request);
}

TEST(CgiRequest, RejectsAMissingMethod)
{
    EXPECT_EQ(read({}), CGI_INVALID);
}

TEST(CgiRequest, KnowsTheLengthOfTheBodyOfARefusedRequest)
{
    EXPECT_EQ(read({{"REQUEST_METHOD", "PUT"}, {"CONTENT_LENGTH", "70000"}}), CGI_METHOD);
    EXPECT_EQ(cgi_request_get_body_length(), 70000);
    EXPECT_EQ(read({{"REQUEST_METHOD", "POST"}, {"HTTP_TRANSFER_ENCODING", "chunked"}}),
              CGI_NO_LENGTH);
    EXPECT_EQ(cgi_request_get_body_length(), CGI_LENGTH_UNKNOWN);
    EXPECT_EQ(read(make_post("1e3")), CGI_INVALID);
    EXPECT_EQ(cgi_request_get_body_length(), CGI_LENGTH_UNKNOWN);
    EXPECT_EQ(read({{"REQUEST_METHOD", "GET"}}), CGI_OK);
    EXPECT_EQ(cgi_request_get_body_length(), 0);
}

TEST(CgiRequest, RejectsOtherMethods)
{
    for (const char *method : {"PUT", "get", "OPTIONS", "GET "}) {
        EXPECT_EQ(read({{"REQUEST_METHOD", method}}), CGI_METHOD) << method;
    }
}

TEST(CgiRequest, ShowsThePageIfThereIsNoAction)
{
    CgiRequest request;
    EXPECT_EQ(read({{"REQUEST_METHOD", "GET"}}, "", &request), CGI_OK);
    EXPECT_EQ(request.action, CGI_SHOW_PAGE);
    EXPECT_EQ(read_query("action=&result=busy", &request), CGI_OK);
    EXPECT_EQ(request.action, CGI_SHOW_PAGE);
    EXPECT_EQ(request.result, "busy");
}

TEST(CgiRequest, ReadsTheOptionsOfPlay)
{
    CgiRequest request;
    EXPECT_EQ(read_query("action=play&clip=7&volume=0&repeat=-1&audiooutput=5", &request), CGI_OK);
    EXPECT_EQ(request.action, CGI_PLAY);
    EXPECT_EQ(request.clip, 7);
    EXPECT_EQ(request.volume, 0);
    EXPECT_EQ(request.repeat, -1);
    EXPECT_EQ(request.output, 5);
}

TEST(CgiRequest, TreatsAnEmptyNumberAsNotGiven)
{
    CgiRequest request;
    EXPECT_EQ(read_query("action=play&clip=7&volume=&repeat=&audiooutput=", &request), CGI_OK);
    EXPECT_EQ(request.volume, CLIENT_NOT_GIVEN);
    EXPECT_EQ(request.repeat, CLIENT_NOT_GIVEN);
    EXPECT_EQ(request.output, CLIENT_NOT_GIVEN);
    EXPECT_EQ(read_query("action=play&clip="), CGI_INVALID);
}

TEST(CgiRequest, RejectsNumbersThatAreNotCanonicalOrInRange)
{
    for (const char *clip : {"0", "1", "2147483647"}) {
        EXPECT_EQ(read_query(std::string("action=play&clip=") + clip), CGI_OK) << clip;
    }
    for (const char *clip : {"-0", "00", "01", "%2B1", "1+", "+1", "1.0", "1e1", "-1", "2147483648",
                             "9223372036854775808", "-9223372036854775809", "\u0661", "a"}) {
        EXPECT_EQ(read_query(std::string("action=play&clip=") + clip), CGI_INVALID) << clip;
    }
    for (const char *option : {"volume=1001", "volume=-1", "repeat=-2", "repeat=2147483648",
                               "audiooutput=6", "audiooutput=-1"}) {
        EXPECT_EQ(read_query(std::string("action=play&clip=1&") + option), CGI_INVALID) << option;
    }
}

TEST(CgiRequest, RejectsUnknownKeysAndActions)
{
    EXPECT_EQ(read_query("action=stop&volum=1"), CGI_INVALID);
    EXPECT_EQ(read_query("Action=stop"), CGI_INVALID);
    EXPECT_EQ(read_query("action=pause"), CGI_INVALID);
}

TEST(CgiRequest, RejectsActionsWithHead)
{
    CgiRequest request;
    EXPECT_EQ(read({{"REQUEST_METHOD", "HEAD"}, {"QUERY_STRING", "action=stop"}}, "", &request),
              CGI_METHOD);
    EXPECT_TRUE(request.is_head);
    EXPECT_EQ(read({{"REQUEST_METHOD", "HEAD"}, {"QUERY_STRING", "action=status"}}), CGI_OK);
}

TEST(CgiRequest, ReadsTheBodyOfAPost)
{
    CgiRequest request;
    EXPECT_EQ(read_body("action=play&clip=3&page=1", &request), CGI_OK);
    EXPECT_EQ(request.action, CGI_PLAY);
    EXPECT_EQ(request.clip, 3);
    EXPECT_TRUE(request.is_from_page);
}

TEST(CgiRequest, OnlyAPostComesFromThePage)
{
    CgiRequest request;
    EXPECT_EQ(read_query("action=stop&page=1", &request), CGI_OK);
    EXPECT_FALSE(request.is_from_page);
}

TEST(CgiRequest, RecognisesAnInvalidFormOfThePage)
{
    CgiRequest request;
    EXPECT_EQ(read_body("action=play&clip=x&page=1", &request), CGI_INVALID);
    EXPECT_TRUE(request.is_from_page);
}

TEST(CgiRequest, RejectsAKeyThatIsInBothQueryAndBody)
{
    Environment environment = make_post("11");
    environment["QUERY_STRING"] = "action=stop";
    EXPECT_EQ(read(environment, "action=stop"), CGI_INVALID);
    environment["QUERY_STRING"] = "clip=1";
    EXPECT_EQ(read(environment, "action=play"), CGI_OK);
}

TEST(CgiRequest, LimitsTheSizeOfQueryAndBody)
{
    EXPECT_EQ(read_query("action=stop" + std::string(CGI_REQUEST_MAX, '&')), CGI_TOO_LARGE);
    EXPECT_EQ(read_query("action=stop" + std::string(CGI_REQUEST_MAX - 11, '&')), CGI_OK);
    EXPECT_EQ(read_body("action=stop" + std::string(CGI_REQUEST_MAX, '&')), CGI_TOO_LARGE);
    EXPECT_EQ(read_body("action=stop" + std::string(CGI_REQUEST_MAX - 11, '&')), CGI_OK);
}

TEST(CgiRequest, RejectsAWrongContentLength)
{
    EXPECT_EQ(read(make_post("12"), "action=stop"), CGI_INVALID);
    EXPECT_EQ(read(make_post("10"), "action=stop"), CGI_INVALID); /* reads "action=sto" */
    EXPECT_EQ(read(make_post("-11"), "action=stop"), CGI_INVALID);
    EXPECT_EQ(read(make_post("11 "), "action=stop"), CGI_INVALID);
    EXPECT_EQ(read(make_post("99999999999999999999"), "action=stop"), CGI_TOO_LARGE);
}

TEST(CgiRequest, RejectsOtherContentTypes)
{
    Environment environment = make_post("11");
    for (const char *type : {"", "text/plain", "application/x-www-form-urlencodedx"}) {
        environment["CONTENT_TYPE"] = type;
        EXPECT_EQ(read(environment, "action=stop"), CGI_MEDIA_TYPE) << type;
    }
}

TEST(CgiRequest, RejectsActionsFromOtherSites)
{
    Environment environment = {{"REQUEST_METHOD", "GET"},
                               {"HTTP_HOST", "device.example"},
                               {"HTTP_SEC_FETCH_SITE", "cross-site"}};
    EXPECT_EQ(read(environment), CGI_OK);
    for (const char *query :
         {"action=play&clip=1", "action=stop", "action=status", "action=nothing"}) {
        environment["QUERY_STRING"] = query;
        EXPECT_EQ(read(environment), CGI_FOREIGN) << query;
    }
}

TEST(CgiRequest, RejectsPrefetchedActions)
{
    for (const char *name : {"HTTP_SEC_PURPOSE", "HTTP_PURPOSE", "HTTP_X_MOZ"}) {
        EXPECT_EQ(
            read({{"REQUEST_METHOD", "GET"}, {"QUERY_STRING", "action=stop"}, {name, "prefetch"}}),
            CGI_PREFETCH);
    }
}

/* A request that sends a clip's file of `length` bytes. */
Environment make_upload(const std::string &length)
{
    return {{"REQUEST_METHOD", "POST"},
            {"CONTENT_TYPE", "application/octet-stream"},
            {"CONTENT_LENGTH", length},
            {"QUERY_STRING", "action=add&file=a.wav"},
            {"SONOBRIK_MANAGE", "1"}};
}

CgiResult read_with(Environment environment, const std::string &name, const std::string &value)
{
    environment[name] = value;
    return read(environment, "data");
}

TEST(CgiRequest, ReadsAnUploadAndLeavesItsBodyAlone)
{
    CgiRequest request;
    EXPECT_EQ(read(make_upload("4"), "data", &request), CGI_OK);
    EXPECT_EQ(request.action, CGI_ADD);
    EXPECT_EQ(request.body_length, 4);
    EXPECT_EQ(request.file, "a.wav");
}

TEST(CgiRequest, RefusesChangesUnlessTheWebServerAllowsThem)
{
    for (const char *value : {"", "0", "yes", "true", "11"}) {
        EXPECT_EQ(read_with(make_upload("4"), "SONOBRIK_MANAGE", value), CGI_READ_ONLY) << value;
    }
    for (const char *query : {"action=file&clip=0", "action=rename&clip=0&name=x",
                              "action=remove&clip=0", "action=replace&clip=0"}) {
        EXPECT_EQ(read_query(query), CGI_READ_ONLY) << query;
    }
}

TEST(CgiRequest, LimitsTheSizeOfAFile)
{
    constexpr const char *ALLOWED = "33554432";
    constexpr const char *LARGER = "33554433";
    EXPECT_EQ(read(make_upload(ALLOWED)), CGI_OK);
    EXPECT_EQ(read(make_upload(LARGER)), CGI_TOO_LARGE);
    EXPECT_EQ(read_with(make_upload(LARGER), "SONOBRIK_UPLOAD_MAX", "33"), CGI_OK);
    EXPECT_EQ(read_with(make_upload("1048577"), "SONOBRIK_UPLOAD_MAX", "1"), CGI_TOO_LARGE);
    for (const char *invalid : {"0", "-1", "x", "99999999", "1.5"}) {
        EXPECT_EQ(read_with(make_upload(LARGER), "SONOBRIK_UPLOAD_MAX", invalid), CGI_TOO_LARGE);
        EXPECT_EQ(read_with(make_upload(ALLOWED), "SONOBRIK_UPLOAD_MAX", invalid), CGI_OK);
    }
}

TEST(CgiRequest, RefusesAFileOfUnknownLength)
{
    EXPECT_EQ(read(make_upload("")), CGI_NO_LENGTH);
    EXPECT_EQ(read_with(make_upload(""), "HTTP_TRANSFER_ENCODING", "chunked"), CGI_NO_LENGTH);
    Environment form = make_post("10");
    form["SONOBRIK_MANAGE"] = "1";
    EXPECT_EQ(read(form, "action=add"), CGI_NO_LENGTH) << "a form has no file";
}

TEST(CgiRequest, RejectsAnEmptyFile)
{
    EXPECT_EQ(read(make_upload("0")), CGI_INVALID);
}

TEST(CgiRequest, RefusesAFileOfATypeThatOtherSitesCanSend)
{
    for (const char *type : {"", "text/plain", "multipart/form-data; boundary=x",
                             "application/x-www-form-urlencoded", "audio/wav"}) {
        EXPECT_EQ(read_with(make_upload("4"), "CONTENT_TYPE", type), CGI_MEDIA_TYPE) << type;
    }
}

TEST(CgiRequest, FormatsTheOptionsThatItGives)
{
    CgiRequest request;
    EXPECT_EQ(cgi_request_format_options(request), "");
    const std::string options = "&volume=0&repeat=-1&audiooutput=2&instead=1";
    ASSERT_EQ(read_query("action=play&clip=7" + options, &request), CGI_OK);
    EXPECT_EQ(cgi_request_format_options(request), options);
}

TEST(CgiRequest, ChangesClipsWithPostOnly)
{
    for (const char *query : {"action=rename&clip=0&name=x", "action=remove&clip=0"}) {
        EXPECT_EQ(
            read({{"REQUEST_METHOD", "GET"}, {"QUERY_STRING", query}, {"SONOBRIK_MANAGE", "1"}}),
            CGI_METHOD)
            << query;
    }
}

TEST(CgiRequest, RefusesABrowserThatHidesWhereTheRequestComesFrom)
{
    const Environment stop = {{"REQUEST_METHOD", "GET"}, {"QUERY_STRING", "action=stop"}};
    EXPECT_EQ(read_with(stop, "HTTP_USER_AGENT", "Mozilla/5.0"), CGI_NO_ORIGIN);
    EXPECT_EQ(read_with(stop, "HTTP_ACCEPT_LANGUAGE", "de"), CGI_NO_ORIGIN);
    EXPECT_EQ(read_with(stop, "HTTP_USER_AGENT", "curl/8"), CGI_OK);
    const Environment page = {{"REQUEST_METHOD", "GET"}};
    EXPECT_EQ(read_with(page, "HTTP_USER_AGENT", "Mozilla/5.0"), CGI_OK);
}

} // namespace

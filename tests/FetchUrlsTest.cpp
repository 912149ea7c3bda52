// The example program that README.md shows for URL transfers.
#include "ChildProcess.h"
#include "LoopbackClient.h"
#include "RealServers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace
{

using testing::HasSubstr;

} // namespace

TEST(FetchUrlsProgram, SaysWhatItFetchedAndEndsWithSuccess)
{
    const NginxServer server;
    server.WriteFile("level", "7 m\n");
    const std::string url = server.GetUrl("/files/level");

    ChildProcess program({FETCH_URLS_PROGRAM, url, url, "file:///dev/null"});

    EXPECT_EQ(program.WaitForExit(), 0);
    const std::string line = url + ": 4 bytes\n";
    EXPECT_THAT(program.GetOutput(), HasSubstr(line));
    EXPECT_THAT(program.GetOutput(), HasSubstr("file:///dev/null: 0 bytes\n"));
    EXPECT_EQ(program.GetOutput().size(), 2 * line.size() + std::string("file:///dev/null: 0 bytes\n").size());
}

TEST(FetchUrlsProgram, SaysWhyAFetchFailedAndEndsWithFailure)
{
    const ReservedPort nobody;
    const std::string url = "http://127.0.0.1:" + std::to_string(nobody.Get()) + "/";

    ChildProcess program({FETCH_URLS_PROGRAM, url, "file:///dev/null"});

    EXPECT_EQ(program.WaitForExit(), 1);
    EXPECT_THAT(program.GetOutput(), HasSubstr(url + ": Failed to connect to 127.0.0.1"));
    EXPECT_THAT(program.GetOutput(), HasSubstr("file:///dev/null: 0 bytes\n"));
}

TEST(FetchUrlsProgram, WithoutUrlsEndsAtOnce)
{
    ChildProcess program({FETCH_URLS_PROGRAM});

    EXPECT_EQ(program.WaitForExit(), 0);
    EXPECT_EQ(program.GetOutput(), "");
}

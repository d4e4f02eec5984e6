// Main of the core library's unit tests: the framework is up while they run, as it is in every host, and one of its
// assertions fails the test that tripped it.

#include "support/process_watch.h"

#include <gtest/gtest.h>

#include <clocale>
#include <iostream>

#include <wx/init.h>
#include <wx/log.h>
#include <wx/string.h>

namespace {
void FailOnAssertion(const wxString& file, int line, const wxString& function, const wxString& condition,
                     const wxString& message)
{
    ADD_FAILURE() << "assertion of the framework: " << file.utf8_str() << ':' << line << ' ' << function.utf8_str()
                  << ": " << condition.utf8_str() << ' ' << message.utf8_str();
}

} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    wxInitializer framework(argc, argv);
    if (!framework.IsOk()) {
        std::cerr << "the framework cannot be started\n";
        return 1;
    }
    wxSetAssertHandler(FailOnAssertion);
    Test::WatchProcess();
    return RUN_ALL_TESTS();
}

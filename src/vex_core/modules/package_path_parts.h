#pragma once
// Where package.path is cut to search the archives in between.

#include <string>
#include <string_view>

namespace VexCore {

/// package.path cut in two where the archives are searched: the templates that were given with "app.lua.path" come
/// before them, all others after. One thread.
class PackagePathParts
{
public:
    /// Cuts anew where one of the two texts is another than the last time.
    void Cut(std::string_view packagePath, const std::string& given);
    const std::string& Before() const { return m_before; }
    const std::string& After() const { return m_after; }

private:
    std::string m_packagePath;
    std::string m_given;
    std::string m_before;
    std::string m_after;
};

} // namespace VexCore

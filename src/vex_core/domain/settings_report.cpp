// First all entries that count are put together, from the weakest source to the strongest; then each line of each file
// is held against the table. What the framework has told already when the launcher opened its two files is a finding as
// well, but not one for the start to tell.

#include "vex_core/domain/settings_report.h"

#include "vex/core/configfile.h"
#include "vex/core/dom.h"
#include "vex_core/base/ascii.h"
#include "vex_core/domain/config_text.h"
#include "vex_core/domain/near_settings.h"
#include "vex_core/domain/setting_value.h"

#include <algorithm>
#include <set>
#include <string_view>

namespace VexCore {

namespace {
// So many names are compared with all keys: a file of rubbish has a hundred thousand.
constexpr int maxNamesCompared = 1000;

const Setting* FindInAnyCase(std::string_view name)
{
    for (const Setting& setting : knownSettings)
        if (IsRowOf(setting, name, IsSameInAnyCase))
            return &setting;
    return nullptr;
}

// Names at the top count as the launcher reads them: those of the database in small letters only.
const Setting* FindAtTop(std::string_view name)
{
    const Setting* const setting = FindInAnyCase(name);
    const bool isDatabase = setting && StartsWith(setting->key, "sqlite.");
    return isDatabase && name != setting->key ? nullptr : setting;
}

bool IsForAnyName(const Setting& setting)
{
    return EndsWith(setting.key, ".NAME");
}

// The key as the table has it, with the last part as it stands where that is anybody's.
std::string KeyOf(const Setting& setting, const std::string& name)
{
    const std::string key = setting.key;
    const std::size_t last = key.rfind('.');
    return IsForAnyName(setting) ? key.substr(0, last) + name.substr(last) : key;
}

struct Entry
{
    std::string value;
    std::string file;
    std::size_t line = 0;
};
using Entries = std::map<std::string, Entry, LessInAnyCase>;

// One file, and which of its lines counts for each name.
struct File
{
    explicit File(const SettingsSource& from) : source(from)
    {
        if (!source.refused.empty() || IsConfigTooLarge(source.bytes))
            return;
        lines = ConfigLines(source.bytes);
        std::set<std::string, LessInAnyCase> locked;
        for (const ConfigLine& line : lines) {
            // The last one counts, or the first that is locked.
            const std::string name = line.group + '\n' + line.name;
            if (line.kind == ConfigLine::Kind::Entry && locked.count(name) == 0)
                counting[name] = line.number;
            if (line.locked)
                locked.insert(name);
        }
    }

    // The number of the line whose value is that of the name. 0 when there is none.
    std::size_t CountingLine(const std::string& group, const std::string& name) const
    {
        const auto found = counting.find(group + '\n' + name);
        return found == counting.end() ? 0 : found->second;
    }

    bool IsDropIn() const { return source.role == SettingsSource::Role::DropIn; }

    const SettingsSource& source;
    std::vector<ConfigLine> lines;
    std::map<std::string, std::size_t, LessInAnyCase> counting; // numbers of lines by group and name
};

constexpr char settingsGroup[] = "settings";

class Report
{
public:
    Report(const std::vector<SettingsSource>& sources, const std::map<std::string, std::string>& domain)
        : m_files(sources.begin(), sources.end()), m_domain(domain)
    {}

    SettingsReport Make()
    {
        for (auto file = m_files.rbegin(); file != m_files.rend(); ++file) {
            Take(m_settings, *file, settingsGroup, file->source.contents.settings);
            if (!file->IsDropIn())
                Take(m_top, *file, "", file->source.contents.top);
        }
        for (const File& file : m_files)
            if (file.source.role == SettingsSource::Role::Global) {
                Take(m_settings, file, settingsGroup, file.source.contents.lockedSettings);
                Take(m_top, file, "", file.source.contents.lockedTop);
            }
        ListInForce();
        JudgeDomain();
        for (const File& file : m_files)
            JudgeFile(file);
        return std::move(m_report);
    }

private:
    static void Take(Entries& entries, const File& file, const std::string& group, const SettingsEntries& taken)
    {
        for (const auto& [name, value] : taken) {
            entries.erase(name); // so that the name is written as where the value comes from
            entries[name] = {value, file.source.file, file.CountingLine(group, name)};
        }
    }

    // --- in force

    SettingInForce& Add(std::string key, std::string value, const Setting* setting)
    {
        SettingInForce& added = m_report.inForce.emplace_back();
        added.key = std::move(key);
        added.value = std::move(value);
        added.setting = setting;
        return added;
    }

    void AddOfFile(const Setting* setting, const std::string& key, const Entry& entry)
    {
        SettingInForce& added = Add(key, setting ? SettingThatCounts(*setting, entry.value) : entry.value, setting);
        added.origin = SettingInForce::Origin::File;
        added.file = entry.file;
        added.line = entry.line;
    }

    void AddOfDomain(const Setting& setting, const std::string& key, const std::string& value)
    {
        Add(key, SettingThatCounts(setting, value), &setting).origin = SettingInForce::Origin::Domain;
    }

    bool IsInDomain(std::string_view key) const { return m_domain.count(std::string(key)) != 0; }

    void ListInForce()
    {
        for (const Setting& setting : knownSettings) {
            const auto top = setting.place == SettingPlace::TopOfFile ? m_top.find(setting.key) : m_top.end();
            const auto entry =
                setting.place == SettingPlace::Settings ? m_settings.find(setting.key) : m_settings.end();
            const auto own = m_domain.find(setting.key);
            // The launcher writes into the domain what stands at the top of a file, after the command line.
            if (top != m_top.end() && FindAtTop(top->first) && IsReadableAtTop(setting, top->second.value))
                AddOfFile(&setting, setting.key, top->second);
            else if (own != m_domain.end())
                AddOfDomain(setting, setting.key, own->second);
            else if (entry != m_settings.end())
                AddOfFile(&setting, setting.key, entry->second);
            else if (setting.standard != noStandard && !IsForAnyName(setting))
                Add(setting.key, StandardText(setting), &setting);
        }
        for (const auto& [key, value] : m_domain)
            if (const Setting* const setting = FindSetting(key); setting && IsForAnyName(*setting))
                AddOfDomain(*setting, key, value);
        for (const auto& [name, entry] : m_settings) {
            const Setting* const setting = FindInAnyCase(name);
            const std::string key = setting ? KeyOf(*setting, name) : name;
            if ((!setting && !IsNameOfHost(name)) || (setting && IsForAnyName(*setting) && !IsInDomain(key)))
                AddOfFile(setting, key, entry);
        }
        std::sort(m_report.inForce.begin(), m_report.inForce.end(),
                  [](const SettingInForce& a, const SettingInForce& b) { return a.key < b.key; });
    }

    static bool IsReadableAtTop(const Setting& setting, const std::string& value)
    {
        return JudgeSetting(setting, value) == SettingVerdict::Good;
    }

    // What counts for the key after all.
    std::string InForce(const std::string& key) const
    {
        const auto found =
            std::lower_bound(m_report.inForce.begin(), m_report.inForce.end(), key,
                             [](const SettingInForce& setting, const std::string& k) { return setting.key < k; });
        return found != m_report.inForce.end() && found->key == key ? found->value : std::string();
    }

    // --- findings

    void Find(SettingFault fault, const std::string& file, std::size_t line, bool toldAtStart, const std::string& key,
              const std::string& value, const std::string& used, const std::string& nearest, const std::string& text)
    {
        const std::string place = file.empty() ? "in the domain" : line ? file + ':' + std::to_string(line) : file;
        m_report.findings.push_back({fault, file, line, key, value, used, nearest, place + ": " + text, toldAtStart});
    }

    std::string NearestTo(const std::string& name, std::string (*nearest)(std::string_view))
    {
        return m_compared++ < maxNamesCompared ? nearest(name) : std::string();
    }

    static std::string Question(const std::string& nearest)
    {
        return nearest.empty() ? "" : "; did you mean '" + nearest + "'?";
    }

    void JudgeValue(const Setting& setting, const std::string& file, std::size_t line, bool toldAtStart,
                    const std::string& key, const std::string& value)
    {
        static constexpr SettingFault faults[] = {SettingFault::Unknown, SettingFault::CommentBehind,
                                                  SettingFault::Unreadable, SettingFault::OutOfRange};
        const SettingVerdict verdict = JudgeSetting(setting, value);
        if (verdict == SettingVerdict::Good)
            return;
        const std::string used = InForce(key);
        const std::string wanted = verdict == SettingVerdict::CommentBehind ? "a comment stands on a line of its own"
                                                                            : "it must be " + WantedText(setting);
        Find(faults[static_cast<int>(verdict)], file, line, toldAtStart, key, value, used, "",
             "the setting '" + key + "' cannot be '" + std::string(WithoutBlanks(value)) + "': " + wanted
                 + (used.empty() ? "" : "; used: " + used));
    }

    void JudgeDomain()
    {
        for (const auto& [key, value] : m_domain)
            if (const Setting* const setting = FindSetting(key); setting && setting->place == SettingPlace::Settings)
                JudgeValue(*setting, "", 0, true, key, value);
    }

    void JudgeFile(const File& file)
    {
        // Of the other two the launcher and the framework have told what is wrong with the file and its lines.
        const SettingsSource& source = file.source;
        if (!source.refused.empty() || IsConfigTooLarge(source.bytes)) {
            Find(SettingFault::NotUsed, source.file, 0, file.IsDropIn(), "", "", "", "",
                 "the file is not used: it has more than " + std::to_string(maxConfigFileBytes) + " bytes or "
                     + std::to_string(maxConfigFileLines) + " lines");
            if (!source.refused.empty())
                m_report.findings.back().text = source.refused;
            return;
        }
        for (const ConfigLine& line : file.lines)
            JudgeLine(file, line);
    }

    void JudgeLine(const File& file, const ConfigLine& line)
    {
        if (line.kind == ConfigLine::Kind::Neither)
            Find(SettingFault::NoEntry, file.source.file, line.number, file.IsDropIn(), "", "", "", "",
                 "the line is no entry, group or comment");
        else if (line.kind == ConfigLine::Kind::Group)
            JudgeGroup(file, line);
        else if (IsSameInAnyCase(line.group, settingsGroup))
            JudgeSettingsLine(file, line);
        else if (line.group.empty())
            JudgeTopLine(file, line);
        else if (!IsNearSettingsGroup(line.group)) // of that one the group itself is the finding
            JudgeForeignLine(file, line);
    }

    void JudgeGroup(const File& file, const ConfigLine& line)
    {
        if (IsNearSettingsGroup(line.group))
            Find(SettingFault::Group, file.source.file, line.number, true, line.group, "", "", settingsGroup,
                 "the group [" + line.group + "] counts for nothing; did you mean [settings]?");
    }

    // Whether another line of the file counts for the name, which is then the finding.
    bool JudgeTwice(const File& file, const ConfigLine& line)
    {
        const std::size_t counting = file.CountingLine(line.group, line.name);
        if (counting == line.number)
            return false;
        Find(SettingFault::Twice, file.source.file, line.number, file.IsDropIn(), line.name, "", "", "",
             "'" + line.name + "' counts for nothing here: it stands in line " + std::to_string(counting) + " too");
        return true;
    }

    void JudgeSettingsLine(const File& file, const ConfigLine& line)
    {
        const SettingsEntries& entries = file.source.contents.settings;
        const Setting* const setting = FindInAnyCase(line.name);
        if (!setting) {
            const std::string nearest = NearestTo(line.name, NearestSetting);
            if (IsNameOfHost(line.name) || !nearest.empty())
                Find(SettingFault::Unknown, file.source.file, line.number, true, line.name, ValueOf(entries, line.name),
                     "", nearest, "there is no setting '" + line.name + "'" + Question(nearest));
            else
                JudgeTwice(file, line);
            return;
        }
        const std::string key = KeyOf(*setting, line.name);
        if (setting->place != SettingPlace::Settings)
            Find(SettingFault::Misplaced, file.source.file, line.number, true, key, ValueOf(entries, line.name),
                 InForce(key), "",
                 "'" + key + "' counts for nothing here: "
                     + (setting->place == SettingPlace::TopOfFile     ? "it stands before the first group"
                        : setting->place == SettingPlace::CommandLine ? "it comes from the command line"
                                                                      : "it is for code that runs"));
        else if (const auto entry = entries.find(line.name); !JudgeTwice(file, line) && entry != entries.end())
            JudgeValue(*setting, file.source.file, line.number, true, key, entry->second);
    }

    void JudgeTopLine(const File& file, const ConfigLine& line)
    {
        const SettingsEntries& entries = file.source.contents.top;
        const Setting* const setting = FindAtTop(line.name);
        if (!setting) {
            const std::string nearest = NearestTo(line.name, NearestAtTop);
            if (!nearest.empty())
                Find(SettingFault::Unknown, file.source.file, line.number, false, line.name,
                     ValueOf(entries, line.name), "", nearest,
                     "there is no setting '" + line.name + "'" + Question(nearest));
        } else if (setting->place != SettingPlace::TopOfFile) {
            JudgeForeignLine(file, line);
        } else if (file.IsDropIn()) {
            Find(SettingFault::Misplaced, file.source.file, line.number, true, setting->key,
                 ValueOf(entries, line.name), InForce(setting->key), "",
                 "'" + std::string(setting->key)
                     + "' counts for nothing here: only the local and the system's own file have it");
        } else if (const auto entry = entries.find(line.name); !JudgeTwice(file, line) && entry != entries.end()) {
            JudgeValue(*setting, file.source.file, line.number, false, setting->key, entry->second);
        }
    }

    // A setting outside of its group.
    void JudgeForeignLine(const File& file, const ConfigLine& line)
    {
        const Setting* const setting = FindInAnyCase(line.name);
        if (!setting || setting->place != SettingPlace::Settings)
            return;
        const std::string key = KeyOf(*setting, line.name);
        Find(SettingFault::Misplaced, file.source.file, line.number, true, key, "", InForce(key), "",
             "'" + key + "' counts for nothing here: it stands in the group [settings]");
    }

    static std::string ValueOf(const SettingsEntries& entries, const std::string& name)
    {
        const auto entry = entries.find(name);
        return entry == entries.end() ? std::string() : entry->second;
    }

    const std::vector<File> m_files;
    const std::map<std::string, std::string>& m_domain;
    Entries m_settings; // that count, of all files
    Entries m_top;
    int m_compared = 0;
    SettingsReport m_report;
};

} // namespace

const char* NameOf(SettingFault fault)
{
    static constexpr const char* names[] = {"unknown", "unreadable", "comment",  "out-of-range", "misplaced",
                                            "group",   "twice",      "no-entry", "not-used"};
    return names[static_cast<int>(fault)];
}

SettingsReport ReportOn(const std::vector<SettingsSource>& sources, const std::map<std::string, std::string>& domain)
{
    return Report(sources, domain).Make();
}

} // namespace VexCore

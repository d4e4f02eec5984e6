// vexctl completion: scripts for shells, made of the options as they are declared, so that none is forgotten.

#include "vex/apps/vexctl/command.h"

#include <algorithm>
#include <memory>

namespace Vexctl {

namespace {
using Words = std::vector<std::string>;

std::string Joined(const Words& words, const char* separator)
{
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : separator) + word;
    return text;
}

// As one word of a shell.
std::string SingleQuoted(const std::string& text)
{
    std::string quoted = "'";
    for (const char c : text)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

// The part that both shells have: the lists of one subcommand as assignments.
std::string Lists(const CommandWords& one)
{
    Words options = one.flags;
    options.insert(options.end(), one.options.begin(), one.options.end());
    return "options=" + SingleQuoted(Joined(options, " ")) + " values=" + SingleQuoted(Joined(one.options, " "))
           + " choices=" + SingleQuoted(Joined(one.choices, " ")) + " files=" + (one.takesFiles ? "yes" : "no");
}

std::string Cases(const std::vector<CommandWords>& subcommands)
{
    std::string text;
    for (const CommandWords& one : subcommands)
        text += "        " + one.name + ") " + Lists(one) + " ;;\n";
    return text;
}

// The walk through the words before the cursor, where both shells go on alike: behind the step over an option's value.
std::string EndOfWalk(const std::vector<CommandWords>& subcommands)
{
    return "        case $name in -*) continue ;; esac\n"
           "        if [ -n \"$command\" ]; then first=no; continue; fi\n"
           "        command=$name\n"
           "        case $command in\n"
           + Cases(subcommands)
           + "        esac\n"
             "        options+=\" $common\" values+=\" $commonValues\"\n"
             "    done\n";
}

Words Names(const std::vector<CommandWords>& subcommands)
{
    Words names;
    for (const CommandWords& one : subcommands)
        names.push_back(one.name);
    return names;
}

std::string BashScript(const CommandWords& root, const std::vector<CommandWords>& subcommands)
{
    const std::string names = Joined(Names(subcommands), " ");
    return "# Completion of vexctl for bash. Made by: vexctl completion bash\n"
           "_vexctl() {\n"
           "    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command='' first=yes\n"
           "    local options values choices files i name\n"
           "    "
           + Lists(root)
           + "\n    local common=$options commonValues=$values\n"
             "    for ((i = 1; i < COMP_CWORD; ++i)); do\n"
             "        name=${COMP_WORDS[i]}\n"
             "        case \" $values \" in *\" $name \"*) [ \"${COMP_WORDS[i + 1]}\" = = ] && ((++i)); ((++i)); "
             "continue ;; esac\n"
           + EndOfWalk(subcommands)
           + "    COMPREPLY=()\n"
             "    [ \"$before\" = = ] && before=${COMP_WORDS[COMP_CWORD - 2]}\n"
             "    case \" $values \" in\n"
             "        *\" $before \"*) compopt -o default 2>/dev/null; return ;;\n"
             "    esac\n"
             "    case $word in\n"
             "        -*) mapfile -t COMPREPLY < <(compgen -W \"$options\" -- \"$word\"); return ;;\n"
             "    esac\n"
             "    if [ -z \"$command\" ]; then\n"
             "        mapfile -t COMPREPLY < <(compgen -W "
           + SingleQuoted(names)
           + " -- \"$word\")\n"
             "    elif [ \"$first\" = yes ] && [ -n \"$choices\" ]; then\n"
             "        mapfile -t COMPREPLY < <(compgen -W \"$choices\" -- \"$word\")\n"
             "    elif [ \"$files\" = yes ]; then\n"
             "        compopt -o default 2>/dev/null\n"
             "    fi\n"
             "}\n"
             "complete -F _vexctl vexctl\n";
}

std::string ZshScript(const CommandWords& root, const std::vector<CommandWords>& subcommands)
{
    std::string described;
    for (const CommandWords& one : subcommands)
        described += "        " + SingleQuoted(one.name + ":" + one.help) + "\n";
    return "#compdef vexctl\n"
           "# Completion of vexctl for zsh. Made by: vexctl completion zsh\n"
           "_vexctl() {\n"
           "    local word=${words[CURRENT]} before=${words[CURRENT - 1]} command='' first=yes\n"
           "    local options values choices files i name\n"
           "    local -a commands\n"
           "    "
           + Lists(root)
           + "\n    local common=$options commonValues=$values\n"
             "    commands=(\n"
           + described
           + "    )\n"
             "    for ((i = 2; i < CURRENT; ++i)); do\n"
             "        name=${words[i]}\n"
             "        case \" $values \" in *\" $name \"*) ((++i)); continue ;; esac\n"
           + EndOfWalk(subcommands)
           + "    case \" $values \" in\n"
             "        *\" $before \"*) _files; return ;;\n"
             "    esac\n"
             "    case $word in\n"
             "        -*) compadd -- ${=options}; return ;;\n"
             "    esac\n"
             "    if [ -z \"$command\" ]; then\n"
             "        _describe command commands\n"
             "    elif [ \"$first\" = yes ] && [ -n \"$choices\" ]; then\n"
             "        compadd -- ${=choices}\n"
             "    elif [ \"$files\" = yes ]; then\n"
             "        _files\n"
             "    fi\n"
             "}\n"
             "if [ \"${funcstack[1]}\" = _vexctl ]; then _vexctl \"$@\"; else compdef _vexctl vexctl; fi\n";
}

} // namespace

Body AddCompletion(Options& options)
{
    const auto shell = std::make_shared<std::string>();
    options.Text("shell", *shell, "bash or zsh").Required().OneOf({"bash", "zsh"});
    return [shell, options](Session& session) {
        std::vector<CommandWords> subcommands = options.AllCommands();
        const CommandWords root = std::move(subcommands.front());
        subcommands.erase(subcommands.begin());
        session.out.Write(*shell == "bash" ? BashScript(root, subcommands) : ZshScript(root, subcommands));
        return statusDone;
    };
}

} // namespace Vexctl

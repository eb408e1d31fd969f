#ifndef ONDARO_PLATFORM_CONFORMANCE_PROBES_H
#define ONDARO_PLATFORM_CONFORMANCE_PROBES_H

#include <string>
#include <vector>

/// What a process of the kit does when it is started as a probe. Each probe answers on CHANNEL
/// and returns whether it could do its work.
namespace conformance::probes {

inline constexpr char OPTION[] = "--probe";

using Arguments = std::vector<std::string>;

inline constexpr char LOG_MESSAGES[] = "log-messages";      // mark, count
inline constexpr char LOG_PRIORITIES[] = "log-priorities";  // mark
inline constexpr char LOG_FORMATS[] = "log-formats";        // mark
inline constexpr char LOG_THREADS[] = "log-threads";        // mark
inline constexpr char LOG_TIMED[] =
    "log-timed";  // mark; answers that it begins, then the slowest call's ms
inline constexpr char RELEASE_TEXT[] = "release-text";  // key
inline constexpr char READ_TEXT[] = "read-text";        // key; answers the text
inline constexpr char READ_INT[] = "read-int";          // key; answers the integer
inline constexpr char WRITE_TEXT[] = "write-text";      // key, value
inline constexpr char WRITE_INT[] = "write-int";        // key, value
inline constexpr char APPLICATION[] = "application";    // answers, then lives as long as its input
inline constexpr char JOIN_GROUP[] = "join-group";      // process id; answers status and group
inline constexpr char SYSTEM_ID[] = "system-id";        // answers the identifier
inline constexpr char SAVE[] = "save";                  // file
inline constexpr char RESTORE[] = "restore";            // file

bool LogMessages(const Arguments& arguments);
bool LogPriorities(const Arguments& arguments);
bool LogFormats(const Arguments& arguments);
bool LogFromThreads(const Arguments& arguments);
bool LogTimed(const Arguments& arguments);
bool ReleaseText(const Arguments& arguments);
bool AnswerText(const Arguments& arguments);
bool AnswerInt(const Arguments& arguments);
bool WriteText(const Arguments& arguments);
bool WriteInt(const Arguments& arguments);
bool RunAsApplication(const Arguments& arguments);
bool JoinGroup(const Arguments& arguments);
bool AnswerSystemId(const Arguments& arguments);
bool SaveState(const Arguments& arguments);
bool RestoreState(const Arguments& arguments);

void Answer(const std::string& line);

/// False also for a probe that does not exist.
bool RunProbe(const std::string& name, const Arguments& arguments);

}  // namespace conformance::probes

#endif

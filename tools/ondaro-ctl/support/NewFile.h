#ifndef ONDARO_CTL_NEW_FILE_H
#define ONDARO_CTL_NEW_FILE_H

#include <sys/types.h>

#include <string>
#include <string_view>

#include "support/Descriptor.h"

namespace ondaro::ctl {

/// A file that comes into being whole or not at all. Every failure is a Failure.
class NewFile {
 public:
  /// Refuses a path that is taken; with `replace`, all but a regular file.
  NewFile(const std::string& path, mode_t mode, bool replace);
  ~NewFile();

  void Write(std::string_view bytes) const;

  /// Puts the file in its place; without it, the destructor removes what there is.
  void Commit();

 private:
  std::string m_path;
  std::string m_written;  // until Commit(); empty afterwards
  Descriptor m_file;
};

}  // namespace ondaro::ctl

#endif

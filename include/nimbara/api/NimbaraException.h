/* The library's exception, the platform exception and error types it maps to,
 * and the conversion of one into the other. */
#ifndef NIMBARA_API_NIMBARAEXCEPTION_H
#define NIMBARA_API_NIMBARAEXCEPTION_H

#include <nimbara/export.h>

#ifdef __cplusplus
#include <atomic>
#include <exception>
#include <map>
#include <string>

namespace nimbara {

using UserInfo = std::map<std::string, std::string>;

/** An exception with a name, a reason and optional user info. */
class NIMBARA_API Exception : public std::exception {
 public:
  Exception(std::string name, std::string reason, UserInfo userInfo = {});
  const std::string& name() const noexcept { return name_; }
  const std::string& reason() const noexcept { return reason_; }
  const UserInfo& userInfo() const noexcept { return userInfo_; }
  const char* what() const noexcept override { return reason_.c_str(); }

 private:
  std::string name_;
  std::string reason_;
  UserInfo userInfo_;
};

/** Raised by the library, named "NimbaraException". The one code raised is 1,
 * with the reason "errorCode=1, No device.": no device on the audio route. */
class NIMBARA_API NimbaraException : public Exception {
 public:
  static constexpr int kNoDevice = 1;
  NimbaraException(int errorCode, const std::string& shortReason);
  NimbaraException(const NimbaraException& other);
  NimbaraException& operator=(const NimbaraException& other);

  int errorCode() const noexcept { return errorCode_.load(); }
  void setErrorCode(int code) noexcept { errorCode_.store(code); }

 private:
  std::atomic<int> errorCode_{0};
};

/** An error object: a domain, a code and user info. */
struct Error {
  std::string domain;
  int code = 0;
  UserInfo userInfo;
};

}  // namespace nimbara
#endif

#endif

#include <nimbara/api/NimbaraException.h>

namespace nimbara {

Exception::Exception(std::string name, std::string reason, UserInfo userInfo)
    : name_(std::move(name)), reason_(std::move(reason)), userInfo_(std::move(userInfo)) {}

NimbaraException::NimbaraException(int errorCode, const std::string& shortReason)
    : Exception("NimbaraException", "errorCode=" + std::to_string(errorCode) + ", " + shortReason) {
  setErrorCode(errorCode);
}

NimbaraException::NimbaraException(const NimbaraException& other)
    : Exception(other), errorCode_(other.errorCode()) {}

NimbaraException& NimbaraException::operator=(const NimbaraException& other) {
  Exception::operator=(other);
  setErrorCode(other.errorCode());
  return *this;
}

}  // namespace nimbara

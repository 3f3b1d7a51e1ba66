// Checks passwords through PAM, which is loaded only by a run that needs it, and the second factor
// of users who have one.
#include "libfenro/password.h"

#include <cstring>
#include <ctime>
#include <string>
#include <tuple>

#include <fenro/auth.h>
#include <security/pam_appl.h>

#include "base/c_memory.h"
#include "base/random_name.h"
#include "base/second_factor.h"
#include "libfenro/dynamic.h"

namespace fenro {
namespace {

constexpr const char* SERVICE = "fenro";
constexpr const char* LIBRARY = "libpam.so.0";

struct PamApi {
  decltype(pam_start)* start = nullptr;
  decltype(pam_authenticate)* authenticate = nullptr;
  decltype(pam_acct_mgmt)* acct_mgmt = nullptr;
  decltype(pam_end)* end = nullptr;
  bool ready = false;

  PamApi() {
    const DynamicLibrary library{LIBRARY};
    ready = library.bind(start, "pam_start") && library.bind(authenticate, "pam_authenticate") &&
            library.bind(acct_mgmt, "pam_acct_mgmt") && library.bind(end, "pam_end");
  }
};

const PamApi& pam() {
  static const PamApi api;
  return api;
}

// The answers of a conversation until PAM takes them over; what is left here is wiped.
class Answers {
 public:
  explicit Answers(int count)
      : replies_(c_array<pam_response>(static_cast<std::size_t>(count))), count_(count) {}
  Answers(const Answers&) = delete;
  Answers& operator=(const Answers&) = delete;
  ~Answers() {
    for (int i = 0; replies_ && i < count_; ++i)
      wipe(CString{replies_[static_cast<std::size_t>(i)].resp});
  }
  [[nodiscard]] bool set(int i, const char* text) {
    return replies_ && (replies_[static_cast<std::size_t>(i)].resp = strdup(text)) != nullptr;
  }
  [[nodiscard]] pam_response* release() { return replies_.release(); }

 private:
  static void wipe(const CString& text) {
    if (text) explicit_bzero(text.get(), std::strlen(text.get()));
  }
  CArray<pam_response> replies_;
  int count_;
};

// Answers every hidden question with the password; a module that prompts for anything else gets
// nothing.
int converse(int count, const pam_message** messages, pam_response** replies, void* password) {
  if (count <= 0 || count > PAM_MAX_NUM_MSG) return PAM_CONV_ERR;
  Answers answers{count};
  for (int i = 0; i < count; ++i) {
    const int style = messages[i]->msg_style;
    if (style == PAM_PROMPT_ECHO_ON) return PAM_CONV_ERR;
    if (style == PAM_PROMPT_ECHO_OFF && !answers.set(i, static_cast<const char*>(password)))
      return PAM_BUF_ERR;
  }
  *replies = answers.release();
  return *replies ? PAM_SUCCESS : PAM_BUF_ERR;
}

class WipedOnReturn {
 public:
  explicit WipedOnReturn(std::string& text) : text_(text) {}
  WipedOnReturn(const WipedOnReturn&) = delete;
  WipedOnReturn& operator=(const WipedOnReturn&) = delete;
  ~WipedOnReturn() { explicit_bzero(text_.data(), text_.size()); }

 private:
  std::string& text_;
};

int check(const char* user, const char* password) {
  const pam_conv conversation{converse,
                              const_cast<char*>(password)};  // only handed through to converse
  pam_handle_t* handle = nullptr;
  int rc = pam().start(SERVICE, user, &conversation, &handle);
  if (rc != PAM_SUCCESS) return rc;
  rc = pam().authenticate(handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
  if (rc == PAM_SUCCESS) rc = pam().acct_mgmt(handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
  pam().end(handle, rc);
  return rc;
}

constexpr int REFUSED = -1;

// A refusal that takes PAM's time for a wrong password: the time of an answer must not reveal that
// the password was right.
int refuse(const char* user, FactorRefusal refusal) {
  constexpr std::size_t LENGTH = 32;
  std::string wrong(LENGTH, '\1');
  std::ignore = random_name(wrong);  // no password contains control characters
  std::ignore = check(user, wrong.c_str());
  return static_cast<int>(refusal);
}

int check_with_code(const char* user, const char* typed, SecondFactor& factor,
                    const SecondFactors& store, std::string* own) {
  TypedLogin login = split_login(typed);
  const WipedOnReturn wiped{login.password};
  // The code is only marked as used once the password is known to be right, or a typing error would
  // cost half a minute.
  FactorRefusal refusal = factor.state == SecondFactor::State::On
                              ? take_code(factor, login.code, std::time(nullptr))
                              : FactorRefusal::Damaged;
  if (refusal != FactorRefusal::None) return refuse(user, refusal);
  if (check(user, login.password.c_str()) != PAM_SUCCESS) return REFUSED;
  refusal = store.use(user, login.code);
  if (refusal != FactorRefusal::None) return refuse(user, refusal);
  if (own) *own = login.password;
  return 0;
}

}  // namespace

bool is_password_of(const char* user, const char* password) {
  return user && *user && password && pam().ready && check(user, password) == PAM_SUCCESS;
}

int check_login(const char* user, const char* typed, LoginKind kind, std::string* own) {
  if (!user || !*user || !typed || !pam().ready) return REFUSED;
  const SecondFactors store;
  SecondFactor factor = store.of(user);
  if (factor.asks()) return check_with_code(user, typed, factor, store, own);
  std::string password = without_challenge(typed);
  const WipedOnReturn wiped{password};
  if (check(user, password.c_str()) != PAM_SUCCESS) return REFUSED;
  if (factor.is_missing() && kind == LoginKind::Server)
    return static_cast<int>(FactorRefusal::NotSetUp);
  if (own) *own = password;
  return 0;
}

}  // namespace fenro

int Check_NAS_User_Password(const char* user, const char* password) {
  return fenro::check_login(user, password, fenro::LoginKind::Server, nullptr);
}

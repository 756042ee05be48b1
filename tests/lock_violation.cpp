// Must not compile: proves that the compiler checks the lock annotations.
#include "base/mutex.h"

class Account {
  public:
    int balance() const { return m_balance; }  // without the lock

  private:
    Mutex m_mutex;
    int m_balance GUARDED_BY(m_mutex) = 0;
};

int main() {
    return Account().balance();
}

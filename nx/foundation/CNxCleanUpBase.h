// The list of objects that are destroyed together when the library is torn down.
#pragma once

// Base of an object that lives until the tear-down. Constructing it registers it, on any thread;
// the list owns it from then on, so it must not be destroyed by anybody else. One whose
// construction fails after that is taken off again.
class CNxCleanUpBase {
public:
    CNxCleanUpBase();
    virtual ~CNxCleanUpBase();

    CNxCleanUpBase(const CNxCleanUpBase&) = delete;
    CNxCleanUpBase& operator=(const CNxCleanUpBase&) = delete;

    // Calls CleanUp() of every registered object, the newest first, and leaves the list empty. Runs
    // at process exit, after the threads have ended. An object that registers itself from within a
    // CleanUp() is dropped from the list without being called: nothing may be made that late.
    // A forked child calls only those that it has made itself: its copies of the others are left.
    static void CleanupAll();

protected:
    // Ends the object's life: deletes it, unless overridden. Runs with the library's recursive
    // singleton mutex held, so it may use other singletons.
    virtual void CleanUp() { delete this; }

private:
    static void ForgetThoseOfParent();

    static CNxCleanUpBase* s_pHeader;
    static CNxCleanUpBase* s_pOfParent;  // what is left alone
    static unsigned int s_forks;         // of the process whose objects are listed

    CNxCleanUpBase* m_next = nullptr;
};

// ILumoraAPI/LumoraAPI: the object interface to the context service.
#ifndef LUMORA_LUMORAAPI_H
#define LUMORA_LUMORAAPI_H

#include <glib.h>
#include <lumora/DBusClient.h>
#include <lumora/lumora-c.h>
#include <lumora/lumora-export.h>

#include <string>

/**
 * @brief The object interface: start, read, write and subscribe through
 * virtual operations.
 *
 * Obtain the one implementation with LumoraAPI::GetInstance(). Every
 * operation returns true on success and false on failure; the reason of a
 * failure is logged (tag "LMF_API").
 */
class LUMORA_EXPORT ILumoraAPI {
public:
    /// Destroys the object. Use LumoraAPI::DeleteInstance() for the singleton.
    virtual ~ILumoraAPI() = default;
    /// @copydoc LumoraAPI::InitializeService
    virtual bool InitializeService() = 0;
    /// @copydoc LumoraAPI::FinalizeService
    virtual bool FinalizeService() = 0;
    /// @copydoc LumoraAPI::Subscribe
    virtual bool Subscribe(std::string subject, LumoraSubjectCb callback, void* userData) = 0;
    /// @copydoc LumoraAPI::UnSubscribe
    virtual bool UnSubscribe(std::string subject, LumoraSubjectCb callback, void* userData) = 0;
    /// @copydoc LumoraAPI::Read
    virtual bool Read(std::string subject, std::string input, std::string& output) = 0;
    /// @copydoc LumoraAPI::Write
    virtual bool Write(std::string subject, std::string input) = 0;
    /// @copydoc LumoraAPI::IsAvailable
    virtual bool IsAvailable() = 0;
};

/**
 * @brief The process-wide object interface, a second entry to the bus client
 * that LMFServiceAPI uses.
 *
 * It holds its own pointer to the shared DBusClient and bypasses the service
 * API: it keeps no start count, does not consult the platform's feature
 * switch, does not set the process name and does not apply the whitelist to
 * internal subjects. FinalizeService() finalises the client for the service
 * API's users too.
 *
 * Several callbacks may subscribe to one subject: the bus client holds one
 * subscription per subject, made for the first callback, and a dispatcher of
 * this class hands each notification to every callback of the subject in the
 * order they subscribed, each with its own user data.
 *
 * Threads and locks: operations may be called from any thread. GetInstance()
 * and DeleteInstance() take the instance mutex; Subscribe(), UnSubscribe()
 * and the delivery of notifications take the callback table's own mutex for
 * the table step only. Read() waits for the bus client's mutex like every
 * read. Subscription callbacks run on the thread that iterates the default
 * GLib main context, with no library lock held, so they may call any
 * operation. Once UnSubscribe(), RemoveAvailabilityCallback() or
 * FinalizeService() returns, the callbacks it removed are not running on
 * another thread (a call in progress is waited for) and will not be called
 * again; from inside such a callback they return at once.
 *
 * Texts: subjects and inputs must be valid UTF-8 (they travel as D-Bus
 * strings); any other text is refused as a bad argument.
 */
class LUMORA_EXPORT LumoraAPI : public ILumoraAPI {
public:
    /// The instance, created on first use (under the instance mutex) and
    /// destroyed by DeleteInstance() or at process exit. The library owns it:
    /// do not delete it. Null only when it could not be allocated ("Memory
    /// Allocation Failed").
    static LumoraAPI* GetInstance();
    /// Destroys the instance, if any; the next GetInstance() makes a new one.
    /// The bus client, its state and the callback table are left as they are.
    static void DeleteInstance();

    /// Does nothing: the bus client and the callback table outlive the object.
    ~LumoraAPI() override;

    /// Starts the shared bus client: connects to the bus and asks whether the
    /// service is enabled, as LMFServiceAPI's first start does (a missing bus
    /// is retried every 2 s, a service not ready yet every 3 s). True, also
    /// when the service is not ready: ask IsAvailable(). Only the first call
    /// of the process does anything; every later call, after
    /// FinalizeService() too, logs "already created dbus" and returns true
    /// without starting the client again. False only when the bus client
    /// could not be allocated.
    bool InitializeService() override;
    /// Finalises the shared bus client: its subscriptions, pending requests
    /// and timers are dropped, for LMFServiceAPI's users as well; so are the
    /// availability callbacks and the subscriptions with the current value
    /// added through this class. True when done; false, with "already
    /// destroyed dbus", before InitializeService(). The callback table is kept,
    /// and a later InitializeService() does not start the client again (see
    /// there).
    bool FinalizeService() override;
    /**
     * Subscribes callback with userData to subject's change notifications.
     *
     * The callback is called as callback(subject, data, userData) once per
     * notification, on the thread that iterates the default GLib main
     * context, with no library lock held; data belongs to the library and is
     * valid only during the call. The callbacks of one subject are called in
     * the order they subscribed.
     *
     * @return true when the triple was added and either the bus client took
     * the subject's subscription (first callback of the subject) or the
     * subject already had one ("Already registered subject, but it has
     * different callback"). false before InitializeService(), for a triple
     * already subscribed ("already subscribed subject[...]cb[...]UserData[...],
     * "), when the record could not be allocated, or when the bus client
     * refused the subject's first callback (then the triple stays in the
     * table). While the bus is not connected the bus client counts the
     * subscription as made without keeping it.
     */
    bool Subscribe(std::string subject, LumoraSubjectCb callback, void* userData) override;
    /**
     * Removes the triple (subject, callback, userData).
     *
     * @return true when other callbacks of subject remain ("Success
     * unsubscribe, but there are another callbacks"); the subject's bus
     * subscription stays. When none remains, the bus client is asked to drop
     * (subject, callback); since it was subscribed with this class's
     * dispatcher and not with callback, it finds nothing and the result is
     * false while the bus is connected (true while it is not): the bus and
     * service subscriptions stay in place and the dispatcher then calls no
     * callback for the subject's notifications. false before
     * InitializeService().
     */
    bool UnSubscribe(std::string subject, LumoraSubjectCb callback, void* userData) override;
    /// Reads subject's current value into output (replacing it). Blocks up to
    /// about 1 s (bus client mutex). False, with output unchanged, before
    /// InitializeService(), when the service is not available or gave no
    /// value ("error %d" with the bus client's code), or when the service
    /// sent no text. Internal subjects are not restricted here.
    bool Read(std::string subject, std::string input, std::string& output) override;
    /// Queues a write of input to subject; does not wait and takes no lock.
    /// False before InitializeService(), or when the bus client refused the
    /// write ("error %d" with its code); true means only that the message was
    /// queued.
    bool Write(std::string subject, std::string input) override;
    /// Whether the service can be used now. False before InitializeService().
    /// Takes no lock.
    bool IsAvailable() override;

    /// @name Beyond the interface
    /// Plain members rather than virtual operations of ILumoraAPI, so that the
    /// interface's table of operations stays as applications were built
    /// against it. Call them on the instance: LumoraAPI::GetInstance()->...
    /// @{

    /// Subscribe(), then asks for subject's current value without blocking:
    /// the callback hears the current value first and then every change, each
    /// once, in order, and the value again after every return of the service
    /// when it changed meanwhile (see Lumora_SubscribeWithValue()). Removed with
    /// UnSubscribe(). False as Subscribe(), and for a null callback or a
    /// statistics subject.
    bool SubscribeWithValue(std::string subject, LumoraSubjectCb callback, void* userData);
    /// Adds an availability callback, told the current state at once and then
    /// every change, on the main-loop thread with no library lock held (see
    /// LumoraAvailabilityCb). False, with one line, before InitializeService(),
    /// for a null callback or a pair already added, and inside a request's
    /// callback (it takes the bus client's mutex to listen for the service's
    /// news).
    bool AddAvailabilityCallback(LumoraAvailabilityCb callback, void* userData);
    /// Removes the pair; once it returns, the callback is not running on
    /// another thread and will not be called again. False, with one line,
    /// when it was not added or before InitializeService().
    bool RemoveAvailabilityCallback(LumoraAvailabilityCb callback, void* userData);
    /// @}

    /// The instance; null until GetInstance(). Maintained by GetInstance()
    /// and DeleteInstance(): read it, do not assign it.
    static LumoraAPI* m_pInstance;
    /// The shared bus client; null until InitializeService(), never cleared
    /// afterwards. Read it, do not assign it.
    static DBusClient* m_pDbusClient;

private:
    LumoraAPI() = default;
};

#endif  // LUMORA_LUMORAAPI_H

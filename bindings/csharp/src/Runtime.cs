// The main queue, notifications and the logger.
using System;
using System.Runtime.InteropServices;
using AOT;

namespace Zorvane.Rewards
{
    /// <summary>Where completions and notifications run. A game drains it
    /// once a frame (MonoBehaviour.Update), so they run on Unity's main thread.</summary>
    public static class MainQueue
    {
        /// <summary>Runs the tasks queued so far; returns how many ran.</summary>
        public static int Drain()
        {
            uint ran;
            ZvrException.Check(Native.zvr_main_queue_drain(out ran));
            return (int)ran;
        }

        /// <summary>Runs tasks until done() holds or the timeout passes; for
        /// tests and tools. Returns whether done() held.</summary>
        public static bool RunUntil(Func<bool> done, TimeSpan timeout)
        {
            GCHandle held = GCHandle.Alloc(done);
            try
            {
                int result;
                ZvrException.Check(Native.zvr_main_queue_run_until(
                    Check, GCHandle.ToIntPtr(held), (long)timeout.TotalMilliseconds, out result));
                return result != 0;
            }
            finally
            {
                held.Free();
            }
        }

        public static void StartDedicatedThread() { ZvrException.Check(Native.zvr_main_queue_start_dedicated_thread()); }
        public static void StopDedicatedThread() { ZvrException.Check(Native.zvr_main_queue_stop_dedicated_thread()); }

        public static int PendingCount
        {
            get { uint n; ZvrException.Check(Native.zvr_main_queue_get_pending_count(out n)); return (int)n; }
        }

        private static readonly object WakeUpLock = new object();
        private static GCHandle wakeUpHandle;
        private static int wakeUpVersion;  // changes with each hook set
        private static readonly Native.WakeUp WakeUpCall = OnWakeUp;

        /// <summary>Calls wakeUp for each task queued from now on, on the
        /// thread that queued it (any thread), so that a loop that sleeps can
        /// post itself an event and drain when it gets it. It must return at
        /// once; Drain from inside it throws (ZVR_E_BUSY). Null removes it;
        /// once this returns, the previous one is not running and never called
        /// again. Shutdown removes it too.</summary>
        public static void SetWakeUp(Action wakeUp)
        {
            lock (WakeUpLock)
            {
                GCHandle previous = wakeUpHandle;
                GCHandle held = wakeUp == null ? default(GCHandle) : GCHandle.Alloc(wakeUp);
                int result = Native.zvr_main_queue_set_wakeup(wakeUp == null ? null : WakeUpCall,
                                                              wakeUp == null ? IntPtr.Zero : GCHandle.ToIntPtr(held));
                if (result != 0)
                {
                    if (held.IsAllocated) held.Free();
                    throw new ZvrException(result);
                }
                wakeUpHandle = held;
                ++wakeUpVersion;
                if (previous.IsAllocated) previous.Free();
            }
        }

        internal static int WakeUpVersion() { lock (WakeUpLock) return wakeUpVersion; }

        // After a shutdown, which removed the hook of `version` unless another
        // was set since (a handle value may be reused, so versions compare).
        internal static void ForgetWakeUp(int version)
        {
            lock (WakeUpLock)
            {
                if (wakeUpVersion != version || !wakeUpHandle.IsAllocated) return;
                wakeUpHandle.Free();
                wakeUpHandle = default(GCHandle);
            }
        }

        [MonoPInvokeCallback(typeof(Native.WakeUp))]
        private static void OnWakeUp(IntPtr user)
        {
            try { ((Action)GCHandle.FromIntPtr(user).Target)(); }
            catch (Exception e) { Rewards.Report(e); }
        }

        private static readonly Native.Predicate Check = OnCheck;

        [MonoPInvokeCallback(typeof(Native.Predicate))]
        private static int OnCheck(IntPtr user)
        {
            try { return ((Func<bool>)GCHandle.FromIntPtr(user).Target)() ? 1 : 0; }
            catch (Exception e) { Rewards.Report(e); return 1; }
        }
    }

    /// <summary>One posted notification; its payload getters give new objects to dispose.</summary>
    public sealed class Notification : NativeObject
    {
        public const string RequestDidFail = "com.zorvane.rewards.manager.request.did.fail";
        public const string ValidationDidFail = "com.zorvane.rewards.manager.validation.did.fail";
        public const string DidFetchOffers = "com.zorvane.rewards.manager.did.fetch.offers";
        public const string DidFetchOrders = "com.zorvane.rewards.manager.did.fetch.orders";
        public const string DidPlaceOrder = "com.zorvane.rewards.manager.did.place.order";
        public const string DidFetchSkillQuestion = "com.zorvane.rewards.manager.did.fetch.skill.question";
        public const string DidAnswerSkillQuestion = "com.zorvane.rewards.manager.did.answer.skill.question";
        public const string UserDidUpdate = "com.zorvane.user.manager.did.update.user.internal";

        internal Notification(NativeHandle handle) : base(handle) { }

        public string Name { get { return Text(Native.zvr_notification_get_name); } }
        public OfferList Offers { get { return OfferList.Wrap(Child(Native.zvr_notification_get_offers)); } }
        public OrderList Orders { get { return OrderList.Wrap(Child(Native.zvr_notification_get_orders)); } }
        public Order Order { get { return Order.Wrap(Child(Native.zvr_notification_get_order)); } }
        public SkillQuestion SkillQuestion { get { return SkillQuestion.Wrap(Child(Native.zvr_notification_get_skill_question)); } }
        public SkillChallenge SkillChallenge { get { return SkillChallenge.Wrap(Child(Native.zvr_notification_get_skill_challenge)); } }
        public RewardsError Error { get { return RewardsError.Wrap(Child(Native.zvr_notification_get_error)); } }

        /// <summary>The user's balances after an order (UserDidUpdate only).</summary>
        public bool TryGetBalances(out long availablePoints, out long testPoints)
        {
            int result = Native.zvr_notification_get_balances(Handle, out availablePoints, out testPoints);
            if (result == ResultNoValue) return false;
            ZvrException.Check(result);
            return true;
        }

        private const int ResultNoValue = 8;
    }

    public static class Notifications
    {
        /// <summary>Calls observer for every notification named name (every
        /// name when null), on the main queue, until the returned object is
        /// disposed. After Dispose the observer is never called again.</summary>
        public static IDisposable Subscribe(string name, Action<Notification> observer)
        {
            if (observer == null) throw new ArgumentNullException("observer");
            byte[] nameBytes = Utf8.Bytes(name);  // may throw: before the observer is held
            GCHandle held = GCHandle.Alloc(observer);
            ulong id;
            int result = Native.zvr_notifications_subscribe(nameBytes, Deliver, GCHandle.ToIntPtr(held), out id);
            if (result != 0)
            {
                held.Free();
                throw new ZvrException(result);
            }
            return new Subscription(id, held);
        }

        private sealed class Subscription : IDisposable
        {
            private readonly ulong id;
            private GCHandle held;

            internal Subscription(ulong id, GCHandle held)
            {
                this.id = id;
                this.held = held;
            }

            // Unsubscribing guarantees no call is running or coming, so the
            // observer can be let go right after.
            public void Dispose()
            {
                if (!held.IsAllocated) return;
                Native.zvr_notifications_unsubscribe(id);
                held.Free();
            }
        }

        private static readonly Native.NotificationCallback Deliver = OnNotification;

        [MonoPInvokeCallback(typeof(Native.NotificationCallback))]
        private static void OnNotification(IntPtr notification, IntPtr user)
        {
            try
            {
                var observer = (Action<Notification>)GCHandle.FromIntPtr(user).Target;
                observer(new Notification(NativeHandle.Retain(notification)));
            }
            catch (Exception e)
            {
                Rewards.Report(e);
            }
        }
    }

    public static class Logger
    {
        public const long CategoryRewards = 1;
        public const long LevelOff = 0, LevelCompact = 1, LevelLocated = 2;

        public static long Level
        {
            get { long v; ZvrException.Check(Native.zvr_logger_get_level(out v)); return v; }
            set { ZvrException.Check(Native.zvr_logger_set_level(value)); }
        }

        public static long Categories
        {
            get { long v; ZvrException.Check(Native.zvr_logger_get_categories(out v)); return v; }
            set { ZvrException.Check(Native.zvr_logger_set_categories(value)); }
        }

        private static readonly object Lock = new object();
        private static GCHandle sinkHandle;
        private static int sinkVersion;  // changes with each sink set
        private static readonly Native.LogSink Sink = OnLine;

        /// <summary>Receives every line, on the thread that logs (not
        /// necessarily the main queue's). Null restores standard error.</summary>
        public static void SetSink(Action<string> sink)
        {
            lock (Lock)
            {
                GCHandle previous = sinkHandle;
                if (sink == null)
                {
                    ZvrException.Check(Native.zvr_logger_set_sink(null, IntPtr.Zero));
                    sinkHandle = default(GCHandle);
                }
                else
                {
                    GCHandle held = GCHandle.Alloc(sink);
                    int result = Native.zvr_logger_set_sink(Sink, GCHandle.ToIntPtr(held));
                    if (result != 0)
                    {
                        held.Free();
                        throw new ZvrException(result);
                    }
                    sinkHandle = held;
                }
                ++sinkVersion;
                // The library no longer calls the previous sink once the call returned.
                if (previous.IsAllocated) previous.Free();
            }
        }

        internal static int SinkVersion() { lock (Lock) return sinkVersion; }

        // As MainQueue.ForgetWakeUp, for the sink.
        internal static void ForgetSink(int version)
        {
            lock (Lock)
            {
                if (sinkVersion != version || !sinkHandle.IsAllocated) return;
                sinkHandle.Free();
                sinkHandle = default(GCHandle);
            }
        }

        [MonoPInvokeCallback(typeof(Native.LogSink))]
        private static void OnLine(IntPtr line, uint length, IntPtr user)
        {
            try { ((Action<string>)GCHandle.FromIntPtr(user).Target)(Utf8.Read(line, (int)length)); }
            catch (Exception e) { Rewards.Report(e); }
        }
    }
}

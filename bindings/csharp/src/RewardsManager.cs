// The rewards manager for C#: configuration and the operations, each with a
// completion that runs on the thread that drains the main queue.
//
// The native library calls back through static methods (all IL2CPP can call)
// held by static delegate fields, so the garbage collector never frees one
// under the library. The completion travels as the callback's `user`
// pointer: a GCHandle allocated for the call and freed by the one callback
// the library promises, a cancelled operation's included (whose completion
// the game never sees).
using System;
using System.Runtime.InteropServices;
using System.Threading;
using AOT;

namespace Zorvane.Rewards
{
    /// <summary>Everything a game configures; null and zero fields keep the
    /// SDK's defaults (docs/configuration.md).</summary>
    public sealed class Configuration
    {
        public string ServiceHost, AppId, AccessToken, CaFile, Locale;
        public bool AllowInsecureHttp;
        public TimeSpan ConnectTimeout = TimeSpan.Zero, RequestTimeout = TimeSpan.Zero;
        public ulong MaxResponseBytes, MaxHeaderBytes;
        /// <summary>Calls under way at once; one more fails at once, unsent
        /// (code "ZVErrorTooManyRequests").</summary>
        public ulong MaxRequestsInFlight;
        /// <summary>Off (null) by default: every call is sent once.</summary>
        public RetryPolicy Retry;
    }

    /// <summary>Opt-in retries (docs/retries.md); zero fields keep their defaults.</summary>
    public sealed class RetryPolicy
    {
        /// <summary>Attempts per call, the first included; 1 never retries.</summary>
        public int MaxAttempts;
        public TimeSpan BaseDelay = TimeSpan.Zero, MaxDelay = TimeSpan.Zero, MaxRetryAfter = TimeSpan.Zero;
        /// <summary>Zero: what is left of the request timeout.</summary>
        public TimeSpan AttemptTimeout = TimeSpan.Zero;
    }

    public static class Rewards
    {
        /// <summary>The SDK's version string and the C interface's version.</summary>
        public static string SdkVersion { get { return Utf8.Read(Native.zvr_sdk_version_string()); } }
        public static uint ApiVersion { get { return Native.zvr_api_version(); } }

        /// <summary>Live native handles, for leak checks in a game's tests.</summary>
        public static uint LiveHandleCount
        {
            get { uint n; ZvrException.Check(Native.zvr_handle_count(out n)); return n; }
        }

        /// <summary>Where exceptions thrown by completions and observers go
        /// (they must not unwind into native code). Default: standard error.</summary>
        public static Action<Exception> UnhandledCallbackException =
            e => Console.Error.WriteLine("ZorvaneRewardsKit callback threw: " + e);

        public static void Configure(Configuration c)
        {
            using (var strings = new Utf8.Block())
            {
                var native = new Native.Configuration
                {
                    StructSize = (uint)Marshal.SizeOf(typeof(Native.Configuration)),
                    AllowInsecureHttp = c.AllowInsecureHttp ? 1u : 0u,
                    ServiceHost = strings.Add(c.ServiceHost),
                    AppId = strings.Add(c.AppId),
                    AccessToken = strings.Add(c.AccessToken),
                    CaFile = strings.Add(c.CaFile),
                    Locale = strings.Add(c.Locale),
                    ConnectTimeoutMs = (long)c.ConnectTimeout.TotalMilliseconds,
                    RequestTimeoutMs = (long)c.RequestTimeout.TotalMilliseconds,
                    MaxResponseBytes = c.MaxResponseBytes,
                    MaxHeaderBytes = c.MaxHeaderBytes,
                    MaxRequestsInFlight = c.MaxRequestsInFlight,
                };
                if (c.Retry != null)
                {
                    native.RetryMaxAttempts = c.Retry.MaxAttempts;
                    native.RetryBaseDelayMs = (long)c.Retry.BaseDelay.TotalMilliseconds;
                    native.RetryMaxDelayMs = (long)c.Retry.MaxDelay.TotalMilliseconds;
                    native.RetryMaxRetryAfterMs = (long)c.Retry.MaxRetryAfter.TotalMilliseconds;
                    native.RetryAttemptTimeoutMs = (long)c.Retry.AttemptTimeout.TotalMilliseconds;
                }
                ZvrException.Check(Native.zvr_configure(ref native));
            }
        }

        // ---- Operations ----------------------------------------------------
        // Each also comes with a Scope first: disposing the scope cancels the
        // operation, and its completion never runs.

        /// <summary>Offers in the configured locale (null: as configured), from
        /// the cache while fresh unless forceFetch.</summary>
        public static void FetchOffers(Action<OfferList, RewardsError> completion, string locale = null,
                                       bool forceFetch = false)
        {
            Run(completion, user => Native.zvr_rewards_fetch_offers_with_locale_force_fetch(
                Utf8.Bytes(locale), forceFetch ? 1 : 0, Callback(completion, OffersDone), user));
        }

        public static void FetchOffers(Scope scope, Action<OfferList, RewardsError> completion,
                                       string locale = null, bool forceFetch = false)
        {
            Run(completion, user => Native.zvr_rewards_fetch_offers_in_scope(
                HandleOf(scope), Utf8.Bytes(locale), forceFetch ? 1 : 0, Callback(completion, OffersDone), user));
        }

        public static void FetchOrders(Action<OrderList, RewardsError> completion)
        {
            Run(completion, user => Native.zvr_rewards_fetch_orders(Callback(completion, OrdersDone), user));
        }

        public static void FetchOrders(Scope scope, Action<OrderList, RewardsError> completion)
        {
            Run(completion, user => Native.zvr_rewards_fetch_orders_in_scope(
                HandleOf(scope), Callback(completion, OrdersDone), user));
        }

        /// <summary>A null request fails validation through the completion.</summary>
        public static void PlaceOrder(OrderRequest request, Action<Order, RewardsError> completion)
        {
            Native.ResultCallback callback = Callback(completion, OrderDone);
            Run(completion, user => request == null ? Native.zvr_rewards_place_order(IntPtr.Zero, callback, user)
                                                    : Native.zvr_rewards_place_order(request.Handle, callback, user));
        }

        /// <summary>A cancelled order may still have been placed: place it
        /// again with the same idempotency key to find out.</summary>
        public static void PlaceOrder(Scope scope, OrderRequest request, Action<Order, RewardsError> completion)
        {
            Native.ResultCallback callback = Callback(completion, OrderDone);
            NativeHandle owner = HandleOf(scope);
            Run(completion, user => request == null
                ? Native.zvr_rewards_place_order_in_scope(owner, IntPtr.Zero, callback, user)
                : Native.zvr_rewards_place_order_in_scope(owner, request.Handle, callback, user));
        }

        public static void FetchSkillQuestion(Action<SkillQuestion, RewardsError> completion)
        {
            Run(completion, user => Native.zvr_rewards_fetch_skill_question(Callback(completion, QuestionDone), user));
        }

        public static void FetchSkillQuestion(Scope scope, Action<SkillQuestion, RewardsError> completion)
        {
            Run(completion, user => Native.zvr_rewards_fetch_skill_question_in_scope(
                HandleOf(scope), Callback(completion, QuestionDone), user));
        }

        public static void AnswerSkillQuestion(string offerId, string questionId, string answer,
                                               Action<SkillChallenge, RewardsError> completion)
        {
            Run(completion, user => Native.zvr_rewards_answer_skill_question(
                Utf8.Bytes(offerId), Utf8.Bytes(questionId), Utf8.Bytes(answer),
                Callback(completion, ChallengeDone), user));
        }

        public static void AnswerSkillQuestion(Scope scope, string offerId, string questionId, string answer,
                                               Action<SkillChallenge, RewardsError> completion)
        {
            Run(completion, user => Native.zvr_rewards_answer_skill_question_in_scope(
                HandleOf(scope), Utf8.Bytes(offerId), Utf8.Bytes(questionId), Utf8.Bytes(answer),
                Callback(completion, ChallengeDone), user));
        }

        // ---- Lifetimes -----------------------------------------------------

        /// <summary>Cancels every operation not yet completed, in a scope or
        /// not: their completions never run. Call it before ClearUserState
        /// when the player signs out.</summary>
        public static void CancelAll() { ZvrException.Check(Native.zvr_rewards_cancel_all()); }

        /// <summary>Ends the SDK's work: cancels every operation (their
        /// completions never run), stops its threads, drops what is queued and
        /// removes the wake-up hook and the log sink. When it returns, every
        /// completion of an operation started before it has been let go. The
        /// SDK may be used again at once. Call it from the game's thread, not
        /// from a completion, when the game quits or reloads the plugin.</summary>
        public static void Shutdown()
        {
            // The hooks in place now are the ones shutdown removes; one that
            // another thread sets meanwhile stays to the next Set call.
            int wakeUp = MainQueue.WakeUpVersion(), sink = Logger.SinkVersion();
            ZvrException.Check(Native.zvr_shutdown());
            MainQueue.ForgetWakeUp(wakeUp);
            Logger.ForgetSink(sink);
        }

        /// <summary>Completions held for operations under way (started, and
        /// neither completed nor let go after a cancellation), for leak checks
        /// in a game's tests.</summary>
        public static int PendingCompletionCount { get { return Thread.VolatileRead(ref pendingCompletions); } }

        // ---- State ---------------------------------------------------------

        /// <summary>The last accepted catalogue (a new list to dispose).</summary>
        public static OfferList Offers
        {
            get { IntPtr l; ZvrException.Check(Native.zvr_rewards_get_offers(out l)); return OfferList.Wrap(NativeHandle.Own(l)); }
        }

        public static OrderList Orders
        {
            get { IntPtr l; ZvrException.Check(Native.zvr_rewards_get_orders(out l)); return OrderList.Wrap(NativeHandle.Own(l)); }
        }

        /// <summary>Seconds since 1970 of the last offers answer; 0: never.</summary>
        public static double LastRefreshTime
        {
            get { double t; ZvrException.Check(Native.zvr_rewards_get_last_refresh_time(out t)); return t; }
        }

        public static double RefreshInterval
        {
            get { double s; ZvrException.Check(Native.zvr_rewards_get_refresh_interval(out s)); return s; }
            set { ZvrException.Check(Native.zvr_rewards_set_refresh_interval(value)); }
        }

        public static void ClearUserState() { ZvrException.Check(Native.zvr_rewards_clear_user_state()); }

        // ---- Callbacks -----------------------------------------------------

        private static readonly Native.ResultCallback OffersDone = OnOffers;
        private static readonly Native.ResultCallback OrdersDone = OnOrders;
        private static readonly Native.ResultCallback OrderDone = OnOrder;
        private static readonly Native.ResultCallback QuestionDone = OnQuestion;
        private static readonly Native.ResultCallback ChallengeDone = OnChallenge;

        private static int pendingCompletions;

        private static NativeHandle HandleOf(Scope scope)
        {
            if (scope == null) throw new ArgumentNullException("scope");
            return scope.Handle;
        }

        // Without a completion the operation still runs; no callback needed.
        private static Native.ResultCallback Callback(object completion, Native.ResultCallback done)
        {
            return completion == null ? null : done;
        }

        // The library calls back only when it accepted the call; otherwise the
        // completion is let go here (a disposed scope or request throws
        // before the call).
        private static void Run(object completion, Func<IntPtr, int> start)
        {
            IntPtr user = IntPtr.Zero;
            if (completion != null)
            {
                user = GCHandle.ToIntPtr(GCHandle.Alloc(completion));
                Interlocked.Increment(ref pendingCompletions);
            }
            int result;
            try
            {
                result = start(user);
            }
            catch
            {
                LetGo(user);
                throw;
            }
            if (result == 0) return;
            LetGo(user);
            throw new ZvrException(result);
        }

        private static object LetGo(IntPtr user)
        {
            if (user == IntPtr.Zero) return null;
            GCHandle held = GCHandle.FromIntPtr(user);
            object completion = held.Target;
            held.Free();
            Interlocked.Decrement(ref pendingCompletions);
            return completion;
        }

        private static void Complete<T>(IntPtr result, IntPtr error, IntPtr user,
                                        Func<NativeHandle, T> wrap) where T : class
        {
            try
            {
                var completion = (Action<T, RewardsError>)LetGo(user);
                // Cancelled: the game asked for it not to run.
                long type;
                if (error != IntPtr.Zero && Native.zvr_error_get_type_borrowed(error, out type) == 0 &&
                    type == Native.ErrorTypeCancelled)
                    return;
                completion(wrap(NativeHandle.Retain(result)), RewardsError.Wrap(NativeHandle.Retain(error)));
            }
            catch (Exception e)
            {
                Report(e);
            }
        }

        internal static void Report(Exception e)
        {
            try { if (UnhandledCallbackException != null) UnhandledCallbackException(e); }
            catch (Exception) { }
        }

        [MonoPInvokeCallback(typeof(Native.ResultCallback))]
        private static void OnOffers(IntPtr result, IntPtr error, IntPtr user)
        {
            Complete(result, error, user, OfferList.Wrap);
        }

        [MonoPInvokeCallback(typeof(Native.ResultCallback))]
        private static void OnOrders(IntPtr result, IntPtr error, IntPtr user)
        {
            Complete(result, error, user, OrderList.Wrap);
        }

        [MonoPInvokeCallback(typeof(Native.ResultCallback))]
        private static void OnOrder(IntPtr result, IntPtr error, IntPtr user)
        {
            Complete(result, error, user, Order.Wrap);
        }

        [MonoPInvokeCallback(typeof(Native.ResultCallback))]
        private static void OnQuestion(IntPtr result, IntPtr error, IntPtr user)
        {
            Complete(result, error, user, SkillQuestion.Wrap);
        }

        [MonoPInvokeCallback(typeof(Native.ResultCallback))]
        private static void OnChallenge(IntPtr result, IntPtr error, IntPtr user)
        {
            Complete(result, error, user, SkillChallenge.Wrap);
        }
    }
}

// The rewards manager for C#: configuration and the operations, each with a
// completion that runs on the thread that drains the main queue.
//
// The native library calls back through static methods (all IL2CPP can call)
// held by static delegate fields, so the garbage collector never frees one
// under the library. The completion travels as the callback's `user`
// pointer: a GCHandle allocated for the call and freed by the one callback
// the library promises.
using System;
using System.Runtime.InteropServices;
using AOT;

namespace Zorvane.Rewards
{
    /// <summary>Everything a game configures; null fields keep their defaults.</summary>
    public sealed class Configuration
    {
        public string ServiceHost, AppId, AccessToken, CaFile, Locale;
        public bool AllowInsecureHttp;
        public TimeSpan ConnectTimeout = TimeSpan.Zero, RequestTimeout = TimeSpan.Zero;
        public ulong MaxResponseBytes;
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
                };
                ZvrException.Check(Native.zvr_configure(ref native));
            }
        }

        // ---- Operations ----------------------------------------------------

        /// <summary>Offers in the configured locale (null: as configured), from
        /// the cache while fresh unless forceFetch.</summary>
        public static void FetchOffers(Action<OfferList, RewardsError> completion, string locale = null,
                                       bool forceFetch = false)
        {
            IntPtr user = Hold(completion);
            Start(Native.zvr_rewards_fetch_offers_with_locale_force_fetch(
                      Utf8.Bytes(locale), forceFetch ? 1 : 0, Callback(completion, OffersDone), user), user);
        }

        public static void FetchOrders(Action<OrderList, RewardsError> completion)
        {
            IntPtr user = Hold(completion);
            Start(Native.zvr_rewards_fetch_orders(Callback(completion, OrdersDone), user), user);
        }

        /// <summary>A null request fails validation through the completion.</summary>
        public static void PlaceOrder(OrderRequest request, Action<Order, RewardsError> completion)
        {
            IntPtr user = Hold(completion);
            Native.ResultCallback callback = Callback(completion, OrderDone);
            Start(request == null ? Native.zvr_rewards_place_order(IntPtr.Zero, callback, user)
                                  : Native.zvr_rewards_place_order(request.Handle, callback, user), user);
        }

        public static void FetchSkillQuestion(Action<SkillQuestion, RewardsError> completion)
        {
            IntPtr user = Hold(completion);
            Start(Native.zvr_rewards_fetch_skill_question(Callback(completion, QuestionDone), user), user);
        }

        public static void AnswerSkillQuestion(string offerId, string questionId, string answer,
                                               Action<SkillChallenge, RewardsError> completion)
        {
            IntPtr user = Hold(completion);
            Start(Native.zvr_rewards_answer_skill_question(Utf8.Bytes(offerId), Utf8.Bytes(questionId),
                                                           Utf8.Bytes(answer),
                                                           Callback(completion, ChallengeDone), user), user);
        }

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

        private static IntPtr Hold(object completion)
        {
            return completion == null ? IntPtr.Zero : GCHandle.ToIntPtr(GCHandle.Alloc(completion));
        }

        // Without a completion the operation still runs; no callback needed.
        private static Native.ResultCallback Callback(object completion, Native.ResultCallback done)
        {
            return completion == null ? null : done;
        }

        // The library calls back only when it accepted the call.
        private static void Start(int result, IntPtr user)
        {
            if (result == 0) return;
            if (user != IntPtr.Zero) GCHandle.FromIntPtr(user).Free();
            throw new ZvrException(result);
        }

        private static void Complete<T>(IntPtr result, IntPtr error, IntPtr user,
                                        Func<NativeHandle, T> wrap) where T : class
        {
            GCHandle held = GCHandle.FromIntPtr(user);
            var completion = (Action<T, RewardsError>)held.Target;
            held.Free();
            try
            {
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

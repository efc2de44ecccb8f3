// The P/Invoke declarations of libZorvaneRewardsKitC (zorvane_rewards.h).
// Strings go in as NUL-terminated UTF-8 byte arrays (NULL: absent), so that
// the text reaches the library unchanged on every platform; strings come out
// as pointers owned by their handle, decoded by Utf8.Read.
using System;
using System.Runtime.InteropServices;

namespace Zorvane.Rewards
{
    internal static class Native
    {
        // Unity loads "ZorvaneRewardsKitC" from its Plugins folder; Mono and
        // .NET look for libZorvaneRewardsKitC.so / .dylib / .dll.
        private const string Lib = "ZorvaneRewardsKitC";
        private const CallingConvention Conv = CallingConvention.Cdecl;

        [UnmanagedFunctionPointer(Conv)] internal delegate void ResultCallback(IntPtr result, IntPtr error, IntPtr user);
        [UnmanagedFunctionPointer(Conv)] internal delegate void NotificationCallback(IntPtr notification, IntPtr user);
        [UnmanagedFunctionPointer(Conv)] internal delegate int Predicate(IntPtr user);
        [UnmanagedFunctionPointer(Conv)] internal delegate void LogSink(IntPtr line, uint length, IntPtr user);
        [UnmanagedFunctionPointer(Conv)] internal delegate void WakeUp(IntPtr user);

        [StructLayout(LayoutKind.Sequential)]
        internal struct Configuration
        {
            public uint StructSize;
            public uint AllowInsecureHttp;
            public IntPtr ServiceHost, AppId, AccessToken, CaFile, Locale;
            public long ConnectTimeoutMs, RequestTimeoutMs;
            public ulong MaxResponseBytes;
            // Version 1.1.
            public ulong MaxHeaderBytes, MaxRequestsInFlight;
            public long RetryMaxAttempts, RetryBaseDelayMs, RetryMaxDelayMs, RetryMaxRetryAfterMs, RetryAttemptTimeoutMs;
        }

        internal const long ErrorTypeCancelled = 100;

        [StructLayout(LayoutKind.Sequential)]
        internal struct AddressFields
        {
            public uint StructSize;
            public IntPtr Name, Street1, Street2, City, Region, PostalCode, Country, Phone;
        }

        // Getters share these shapes.
        internal delegate int TextGetter(NativeHandle handle, out IntPtr text);
        internal delegate int Int64Getter(NativeHandle handle, out long value);
        internal delegate int HandleGetter(NativeHandle handle, out IntPtr child);

        [DllImport(Lib, CallingConvention = Conv)] internal static extern uint zvr_api_version();
        [DllImport(Lib, CallingConvention = Conv)] internal static extern double zvr_sdk_version_number();
        [DllImport(Lib, CallingConvention = Conv)] internal static extern IntPtr zvr_sdk_version_string();
        [DllImport(Lib, CallingConvention = Conv)] internal static extern IntPtr zvr_result_name(int result);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_retain(IntPtr handle);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_release(IntPtr handle);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_handle_count(out uint count);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_configure(ref Configuration configuration);

        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_error_get_type(NativeHandle h, out long v);
        [DllImport(Lib, CallingConvention = Conv, EntryPoint = "zvr_error_get_type")] internal static extern int zvr_error_get_type_borrowed(IntPtr h, out long v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_error_get_attempts(NativeHandle h, out int v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_error_get_code(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_error_get_message(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_error_get_http_status(NativeHandle h, out int v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_error_get_raw_json(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_error_get_description(NativeHandle h, out IntPtr v);

        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_offer_get_id(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_offer_get_name(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_offer_get_type(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_offer_get_details(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_offer_get_description_text(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_offer_get_points(NativeHandle h, out long v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_offer_get_start_time(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_offer_get_end_time(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_offer_get_weight(NativeHandle h, out long v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_offer_get_is_featured(NativeHandle h, out int v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_offer_get_is_skill_challenge_required(NativeHandle h, out int v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_offer_get_tier(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_offer_get_logo_url(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_offer_get_status(NativeHandle h, out long v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_offer_get_status_text(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_offer_get_options(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_offer_get_field_json(NativeHandle h, int field, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_offer_get_json(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_offer_get_description(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_offer_list_get_count(NativeHandle h, out uint v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_offer_list_get_at(NativeHandle h, uint index, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_offer_list_get_json(NativeHandle h, out IntPtr v);

        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_get_id(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_get_offer_type(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_get_user_id(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_get_external_id(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_get_offer_id(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_get_user(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_get_quantity(NativeHandle h, out long v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_get_points(NativeHandle h, out long v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_get_created_time(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_get_name(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_get_logo_url(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_get_details(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_get_description_text(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_get_shipping_address(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_get_status(NativeHandle h, out long v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_get_status_text(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_get_field_json(NativeHandle h, int field, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_get_json(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_get_description(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_list_get_count(NativeHandle h, out uint v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_list_get_at(NativeHandle h, uint index, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_list_get_json(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_user_get_id(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_user_get_available_points(NativeHandle h, out long v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_user_get_test_points(NativeHandle h, out long v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_user_get_json(NativeHandle h, out IntPtr v);

        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_address_get_name(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_address_get_street1(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_address_get_street2(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_address_get_city(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_address_get_region(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_address_get_postal_code(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_address_get_country(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_address_get_phone(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_address_get_extras_json(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_address_get_json(NativeHandle h, out IntPtr v);

        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_skill_question_get_id(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_skill_question_get_question(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_skill_question_get_field_json(NativeHandle h, int field, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_skill_question_get_json(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_skill_challenge_get_id(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_skill_challenge_get_status(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_skill_challenge_get_field_json(NativeHandle h, int field, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_skill_challenge_get_json(NativeHandle h, out IntPtr v);

        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_request_create(byte[] offerId, long quantity, out IntPtr request);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_request_set_offer_id(NativeHandle h, byte[] v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_request_set_quantity(NativeHandle h, long v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_request_unset_quantity(NativeHandle h);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_request_set_email(NativeHandle h, byte[] v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_request_set_ip(NativeHandle h, byte[] v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_request_set_shipping_address(NativeHandle h, ref AddressFields v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_request_set_shipping_address(NativeHandle h, IntPtr none);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_request_set_challenge_id(NativeHandle h, byte[] v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_request_get_json(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_request_set_idempotency_key(NativeHandle h, byte[] v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_order_request_get_idempotency_key(NativeHandle h, out IntPtr v);

        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_rewards_fetch_offers(ResultCallback callback, IntPtr user);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_rewards_fetch_offers_with_locale_force_fetch(byte[] locale, int forceFetch, ResultCallback callback, IntPtr user);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_rewards_fetch_orders(ResultCallback callback, IntPtr user);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_rewards_place_order(NativeHandle request, ResultCallback callback, IntPtr user);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_rewards_place_order(IntPtr noRequest, ResultCallback callback, IntPtr user);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_rewards_fetch_skill_question(ResultCallback callback, IntPtr user);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_rewards_answer_skill_question(byte[] offerId, byte[] questionId, byte[] answer, ResultCallback callback, IntPtr user);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_cancel_scope_create(out IntPtr scope);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_cancel_scope_cancel(NativeHandle scope);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_cancel_scope_get_pending_count(NativeHandle scope, out uint count);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_rewards_fetch_offers_in_scope(NativeHandle scope, byte[] locale, int forceFetch, ResultCallback callback, IntPtr user);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_rewards_fetch_orders_in_scope(NativeHandle scope, ResultCallback callback, IntPtr user);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_rewards_place_order_in_scope(NativeHandle scope, NativeHandle request, ResultCallback callback, IntPtr user);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_rewards_place_order_in_scope(NativeHandle scope, IntPtr noRequest, ResultCallback callback, IntPtr user);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_rewards_fetch_skill_question_in_scope(NativeHandle scope, ResultCallback callback, IntPtr user);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_rewards_answer_skill_question_in_scope(NativeHandle scope, byte[] offerId, byte[] questionId, byte[] answer, ResultCallback callback, IntPtr user);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_rewards_cancel_all();
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_shutdown();
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_rewards_get_offers(out IntPtr list);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_rewards_get_orders(out IntPtr list);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_rewards_get_last_refresh_time(out double time);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_rewards_clear_user_state();
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_rewards_get_refresh_interval(out double seconds);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_rewards_set_refresh_interval(double seconds);

        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_notifications_subscribe(byte[] name, NotificationCallback callback, IntPtr user, out ulong subscription);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_notifications_unsubscribe(ulong subscription);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_notification_get_name(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_notification_get_offers(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_notification_get_orders(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_notification_get_order(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_notification_get_skill_question(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_notification_get_skill_challenge(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_notification_get_error(NativeHandle h, out IntPtr v);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_notification_get_balances(NativeHandle h, out long available, out long test);

        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_main_queue_drain(out uint ran);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_main_queue_run_until(Predicate done, IntPtr user, long timeoutMs, out int held);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_main_queue_start_dedicated_thread();
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_main_queue_stop_dedicated_thread();
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_main_queue_get_pending_count(out uint count);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_main_queue_set_wakeup(WakeUp callback, IntPtr user);

        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_logger_set_sink(LogSink sink, IntPtr user);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_logger_set_level(long level);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_logger_get_level(out long level);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_logger_set_categories(long categories);
        [DllImport(Lib, CallingConvention = Conv)] internal static extern int zvr_logger_get_categories(out long categories);
    }
}

// Read-only views of the records the SDK built from the service's answers.
// Each wrapper owns one native reference: Dispose it when done, or leave it
// to the finalizer. Properties read through the handle on each access.
using System;
using System.Collections;
using System.Collections.Generic;

namespace Zorvane.Rewards
{
    public enum OfferStatus
    {
        Unknown = 0, Available = 1, VerificationRequired = 2, NotQualified = 3,
        InsufficientPoints = 4, UserRequired = 5, RegistrationRequired = 6
    }

    public enum OrderStatus { Unknown = 0, Approved = 1, Rejected = 2, PendingApproval = 3, RedemptionError = 4 }

    /// <summary>Fields of an offer that hold a JSON value (see Offer.FieldJson).</summary>
    public enum OfferField
    {
        Name = 1, Type = 2, Details = 3, DescriptionText = 4, StartTime = 5, EndTime = 6,
        Tier = 7, LogoUrl = 8, Data = 9, Extras = 10
    }

    public enum OrderField { CreatedTime = 1, Name = 2, LogoUrl = 3, Details = 4, DescriptionText = 5, Data = 6, Extras = 7 }

    public enum ErrorType { Transport = 1, Validation = 2, Service = 3, Http = 4, InvalidAnswer = 5, Configuration = 6 }

    /// <summary>Why an operation failed: the second argument of a completion.</summary>
    public sealed class RewardsError : NativeObject
    {
        internal RewardsError(NativeHandle handle) : base(handle) { }
        internal static RewardsError Wrap(NativeHandle h) { return h == null ? null : new RewardsError(h); }

        public ErrorType Type { get { return (ErrorType)Int64(Native.zvr_error_get_type); } }
        /// <summary>"ZVErrorTransportTimeout"..., or null.</summary>
        public string Code { get { return Text(Native.zvr_error_get_code); } }
        public string Message { get { return Text(Native.zvr_error_get_message); } }
        public int HttpStatus
        {
            get { int v; ZvrException.Check(Native.zvr_error_get_http_status(Handle, out v)); return v; }
        }
        /// <summary>The service's answer body as JSON text, or null.</summary>
        public string RawJson { get { return Text(Native.zvr_error_get_raw_json); } }
        /// <summary>How many times the request was sent (more than 1 only
        /// with retries on; 0 when it never was).</summary>
        public int Attempts
        {
            get { int v; ZvrException.Check(Native.zvr_error_get_attempts(Handle, out v)); return v; }
        }
        public override string ToString() { return Text(Native.zvr_error_get_description); }
    }

    public sealed class Offer : NativeObject
    {
        private OfferList options;

        internal Offer(NativeHandle handle) : base(handle) { }

        public string Id { get { return Text(Native.zvr_offer_get_id); } }
        public string Name { get { return Text(Native.zvr_offer_get_name); } }
        public string Type { get { return Text(Native.zvr_offer_get_type); } }
        public string Details { get { return Text(Native.zvr_offer_get_details); } }
        public string DescriptionText { get { return Text(Native.zvr_offer_get_description_text); } }
        public long Points { get { return Int64(Native.zvr_offer_get_points); } }
        public string StartTime { get { return Text(Native.zvr_offer_get_start_time); } }
        public string EndTime { get { return Text(Native.zvr_offer_get_end_time); } }
        public long Weight { get { return Int64(Native.zvr_offer_get_weight); } }
        public bool IsFeatured
        {
            get { int v; ZvrException.Check(Native.zvr_offer_get_is_featured(Handle, out v)); return v != 0; }
        }
        public bool IsSkillChallengeRequired
        {
            get { int v; ZvrException.Check(Native.zvr_offer_get_is_skill_challenge_required(Handle, out v)); return v != 0; }
        }
        public string Tier { get { return Text(Native.zvr_offer_get_tier); } }
        public string LogoUrl { get { return Text(Native.zvr_offer_get_logo_url); } }
        public OfferStatus Status { get { return (OfferStatus)Int64(Native.zvr_offer_get_status); } }
        public string StatusText { get { return Text(Native.zvr_offer_get_status_text); } }

        /// <summary>The options, themselves offers; disposed with this offer.</summary>
        public OfferList Options
        {
            get
            {
                if (options == null) options = OfferList.Wrap(Child(Native.zvr_offer_get_options));
                return options;
            }
        }

        /// <summary>A field as raw JSON text, null when absent.</summary>
        public string FieldJson(OfferField field)
        {
            IntPtr text;
            ZvrException.Check(Native.zvr_offer_get_field_json(Handle, (int)field, out text));
            string read = Utf8.Read(text);
            GC.KeepAlive(Handle);  // the text belongs to the handle
            return read;
        }

        public string Json { get { return Text(Native.zvr_offer_get_json); } }
        public override string ToString() { return Text(Native.zvr_offer_get_description); }

        public override void Dispose()
        {
            if (options != null) options.Dispose();
            base.Dispose();
        }
    }

    /// <summary>Offers in the service's order. Disposing the list disposes its offers.</summary>
    public sealed class OfferList : NativeObject, IReadOnlyList<Offer>
    {
        private readonly Offer[] items;

        internal OfferList(NativeHandle handle) : base(handle)
        {
            uint count;
            ZvrException.Check(Native.zvr_offer_list_get_count(Handle, out count));
            items = new Offer[count];
            for (uint i = 0; i < count; ++i)
            {
                IntPtr offer;
                ZvrException.Check(Native.zvr_offer_list_get_at(Handle, i, out offer));
                items[i] = new Offer(NativeHandle.Own(offer));
            }
        }

        internal static OfferList Wrap(NativeHandle h) { return h == null ? null : new OfferList(h); }

        public int Count { get { return items.Length; } }
        public Offer this[int index] { get { return items[index]; } }
        public IEnumerator<Offer> GetEnumerator() { return ((IEnumerable<Offer>)items).GetEnumerator(); }
        IEnumerator IEnumerable.GetEnumerator() { return items.GetEnumerator(); }

        /// <summary>The whole list as a JSON array (for JsonUtility and the like).</summary>
        public string Json { get { return Text(Native.zvr_offer_list_get_json); } }

        public override void Dispose()
        {
            foreach (Offer offer in items) offer.Dispose();
            base.Dispose();
        }
    }

    public sealed class OrderUser : NativeObject
    {
        internal OrderUser(NativeHandle handle) : base(handle) { }
        public string Id { get { return Text(Native.zvr_order_user_get_id); } }
        public long AvailablePoints { get { return Int64(Native.zvr_order_user_get_available_points); } }
        public long TestPoints { get { return Int64(Native.zvr_order_user_get_test_points); } }
        public string Json { get { return Text(Native.zvr_order_user_get_json); } }
    }

    public sealed class Address : NativeObject
    {
        internal Address(NativeHandle handle) : base(handle) { }
        public string Name { get { return Text(Native.zvr_address_get_name); } }
        public string Street1 { get { return Text(Native.zvr_address_get_street1); } }
        public string Street2 { get { return Text(Native.zvr_address_get_street2); } }
        public string City { get { return Text(Native.zvr_address_get_city); } }
        public string Region { get { return Text(Native.zvr_address_get_region); } }
        public string PostalCode { get { return Text(Native.zvr_address_get_postal_code); } }
        public string Country { get { return Text(Native.zvr_address_get_country); } }
        public string Phone { get { return Text(Native.zvr_address_get_phone); } }
        public string ExtrasJson { get { return Text(Native.zvr_address_get_extras_json); } }
        public string Json { get { return Text(Native.zvr_address_get_json); } }
    }

    public sealed class Order : NativeObject
    {
        private OrderUser user;
        private Address shippingAddress;
        private bool childrenRead;

        internal Order(NativeHandle handle) : base(handle) { }
        internal static Order Wrap(NativeHandle h) { return h == null ? null : new Order(h); }

        public string Id { get { return Text(Native.zvr_order_get_id); } }
        public string OfferType { get { return Text(Native.zvr_order_get_offer_type); } }
        public string UserId { get { return Text(Native.zvr_order_get_user_id); } }
        public string ExternalId { get { return Text(Native.zvr_order_get_external_id); } }
        public string OfferId { get { return Text(Native.zvr_order_get_offer_id); } }
        public long Quantity { get { return Int64(Native.zvr_order_get_quantity); } }
        public long Points { get { return Int64(Native.zvr_order_get_points); } }
        public string CreatedTime { get { return Text(Native.zvr_order_get_created_time); } }
        public string Name { get { return Text(Native.zvr_order_get_name); } }
        public string LogoUrl { get { return Text(Native.zvr_order_get_logo_url); } }
        public string Details { get { return Text(Native.zvr_order_get_details); } }
        public string DescriptionText { get { return Text(Native.zvr_order_get_description_text); } }
        public OrderStatus Status { get { return (OrderStatus)Int64(Native.zvr_order_get_status); } }
        public string StatusText { get { return Text(Native.zvr_order_get_status_text); } }

        /// <summary>The balances after the order; disposed with the order.</summary>
        public OrderUser User { get { ReadChildren(); return user; } }
        /// <summary>Null when the order has none; disposed with the order.</summary>
        public Address ShippingAddress { get { ReadChildren(); return shippingAddress; } }

        public string FieldJson(OrderField field)
        {
            IntPtr text;
            ZvrException.Check(Native.zvr_order_get_field_json(Handle, (int)field, out text));
            string read = Utf8.Read(text);
            GC.KeepAlive(Handle);  // the text belongs to the handle
            return read;
        }

        public string Json { get { return Text(Native.zvr_order_get_json); } }
        public override string ToString() { return Text(Native.zvr_order_get_description); }

        private void ReadChildren()
        {
            if (childrenRead) return;
            NativeHandle u = Child(Native.zvr_order_get_user);
            NativeHandle a = Child(Native.zvr_order_get_shipping_address);
            user = u == null ? null : new OrderUser(u);
            shippingAddress = a == null ? null : new Address(a);
            childrenRead = true;
        }

        public override void Dispose()
        {
            if (user != null) user.Dispose();
            if (shippingAddress != null) shippingAddress.Dispose();
            base.Dispose();
        }
    }

    /// <summary>Orders in the service's order. Disposing the list disposes its orders.</summary>
    public sealed class OrderList : NativeObject, IReadOnlyList<Order>
    {
        private readonly Order[] items;

        internal OrderList(NativeHandle handle) : base(handle)
        {
            uint count;
            ZvrException.Check(Native.zvr_order_list_get_count(Handle, out count));
            items = new Order[count];
            for (uint i = 0; i < count; ++i)
            {
                IntPtr order;
                ZvrException.Check(Native.zvr_order_list_get_at(Handle, i, out order));
                items[i] = new Order(NativeHandle.Own(order));
            }
        }

        internal static OrderList Wrap(NativeHandle h) { return h == null ? null : new OrderList(h); }

        public int Count { get { return items.Length; } }
        public Order this[int index] { get { return items[index]; } }
        public IEnumerator<Order> GetEnumerator() { return ((IEnumerable<Order>)items).GetEnumerator(); }
        IEnumerator IEnumerable.GetEnumerator() { return items.GetEnumerator(); }
        public string Json { get { return Text(Native.zvr_order_list_get_json); } }

        public override void Dispose()
        {
            foreach (Order order in items) order.Dispose();
            base.Dispose();
        }
    }

    public sealed class SkillQuestion : NativeObject
    {
        internal SkillQuestion(NativeHandle handle) : base(handle) { }
        internal static SkillQuestion Wrap(NativeHandle h) { return h == null ? null : new SkillQuestion(h); }
        public string Id { get { return Text(Native.zvr_skill_question_get_id); } }
        public string Question { get { return Text(Native.zvr_skill_question_get_question); } }
        public string Json { get { return Text(Native.zvr_skill_question_get_json); } }
    }

    public sealed class SkillChallenge : NativeObject
    {
        internal SkillChallenge(NativeHandle handle) : base(handle) { }
        internal static SkillChallenge Wrap(NativeHandle h) { return h == null ? null : new SkillChallenge(h); }
        /// <summary>Put into OrderRequest.WithChallengeId to order the offer.</summary>
        public string Id { get { return Text(Native.zvr_skill_challenge_get_id); } }
        /// <summary>The service's verdict word ("passed", "failed").</summary>
        public string Status { get { return Text(Native.zvr_skill_challenge_get_status); } }
        public string Json { get { return Text(Native.zvr_skill_challenge_get_json); } }
    }
}

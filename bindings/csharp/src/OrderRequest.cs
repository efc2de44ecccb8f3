// What the game fills in to redeem an offer, builder style.
using System;

namespace Zorvane.Rewards
{
    /// <summary>A postal address to ship an order to. Null fields are left out.</summary>
    public sealed class ShippingAddress
    {
        public string Name, Street1, Street2, City, Region, PostalCode, Country, Phone;
    }

    /// <summary>An order to place. Each With... copies its argument into the
    /// native request and returns this request; PlaceOrder reads the request
    /// before returning, so it may be changed and placed again.</summary>
    public sealed class OrderRequest : NativeObject
    {
        public OrderRequest(string offerId, long quantity) : base(Create(offerId, quantity)) { }

        private static NativeHandle Create(string offerId, long quantity)
        {
            IntPtr request;
            ZvrException.Check(Native.zvr_order_request_create(Utf8.Bytes(offerId), quantity, out request));
            return NativeHandle.Own(request);
        }

        public OrderRequest WithOfferId(string offerId)
        {
            ZvrException.Check(Native.zvr_order_request_set_offer_id(Handle, Utf8.Bytes(offerId)));
            return this;
        }

        public OrderRequest WithQuantity(long quantity)
        {
            ZvrException.Check(Native.zvr_order_request_set_quantity(Handle, quantity));
            return this;
        }

        public OrderRequest WithoutQuantity()
        {
            ZvrException.Check(Native.zvr_order_request_unset_quantity(Handle));
            return this;
        }

        public OrderRequest WithEmail(string email)
        {
            ZvrException.Check(Native.zvr_order_request_set_email(Handle, Utf8.Bytes(email)));
            return this;
        }

        /// <summary>The device's IP address; "127.0.0.1" is sent when unset.</summary>
        public OrderRequest WithIp(string ip)
        {
            ZvrException.Check(Native.zvr_order_request_set_ip(Handle, Utf8.Bytes(ip)));
            return this;
        }

        /// <summary>The id of a passed SkillChallenge.</summary>
        public OrderRequest WithChallengeId(string challengeId)
        {
            ZvrException.Check(Native.zvr_order_request_set_challenge_id(Handle, Utf8.Bytes(challengeId)));
            return this;
        }

        /// <summary>Null removes the address.</summary>
        public OrderRequest WithShippingAddress(ShippingAddress address)
        {
            if (address == null)
            {
                ZvrException.Check(Native.zvr_order_request_set_shipping_address(Handle, IntPtr.Zero));
                return this;
            }
            using (var strings = new Utf8.Block())
            {
                var fields = new Native.AddressFields
                {
                    StructSize = (uint)System.Runtime.InteropServices.Marshal.SizeOf(typeof(Native.AddressFields)),
                    Name = strings.Add(address.Name),
                    Street1 = strings.Add(address.Street1),
                    Street2 = strings.Add(address.Street2),
                    City = strings.Add(address.City),
                    Region = strings.Add(address.Region),
                    PostalCode = strings.Add(address.PostalCode),
                    Country = strings.Add(address.Country),
                    Phone = strings.Add(address.Phone),
                };
                ZvrException.Check(Native.zvr_order_request_set_shipping_address(Handle, ref fields));
            }
            return this;
        }

        /// <summary>The order's idempotency key (1 to 255 visible ASCII
        /// characters; null: a random key for each placement). A service that
        /// honours keys stores one order per key: keep the key with the order
        /// until its outcome is known, and place it again with the same key
        /// after a lost answer, to be charged once. Sent as a header, never in
        /// the body. Throws ZvrException for a key outside the rule.</summary>
        public OrderRequest WithIdempotencyKey(string key)
        {
            ZvrException.Check(Native.zvr_order_request_set_idempotency_key(Handle, Utf8.Bytes(key)));
            return this;
        }

        /// <summary>The key set, or null.</summary>
        public string IdempotencyKey { get { return Text(Native.zvr_order_request_get_idempotency_key); } }

        /// <summary>The JSON object sent under "order", as the request stands.</summary>
        public string Json { get { return Text(Native.zvr_order_request_get_json); } }
    }
}

// Scopes: the operations a screen starts, cancelled when it closes.
using System;

namespace Zorvane.Rewards
{
    /// <summary>Owns the operations started with it (the Rewards operations
    /// that take a Scope first). Cancel, or Dispose when the screen that
    /// started them closes: the completions of those not yet completed never
    /// run, whether their request is in flight or their outcome already
    /// queued. Keep it in a field of the screen: its finalizer cancels too.
    /// Cancel and Dispose wait for a completion of the scope running on
    /// another thread; from inside one of its completions they do not wait
    /// for that one.</summary>
    public sealed class Scope : NativeObject
    {
        public Scope() : base(Create()) { }

        private static NativeHandle Create()
        {
            IntPtr scope;
            ZvrException.Check(Native.zvr_cancel_scope_create(out scope));
            return NativeHandle.Own(scope);
        }

        /// <summary>Cancels its operations; the scope stays usable.</summary>
        public void Cancel() { ZvrException.Check(Native.zvr_cancel_scope_cancel(Handle)); }

        /// <summary>Operations neither completed nor cancelled.</summary>
        public int PendingCount
        {
            get { uint n; ZvrException.Check(Native.zvr_cancel_scope_get_pending_count(Handle, out n)); return (int)n; }
        }
    }
}

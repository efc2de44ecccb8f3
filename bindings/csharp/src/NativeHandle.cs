// One reference to a native handle, given back when disposed or finalized,
// and the helpers every wrapper uses to read through it.
using System;
using System.Runtime.InteropServices;
using System.Text;

namespace Zorvane.Rewards
{
    /// <summary>A failure result of the native library (a misuse, not a
    /// service error: those arrive as <see cref="RewardsError"/>).</summary>
    public sealed class ZvrException : Exception
    {
        public int Result { get; private set; }

        internal ZvrException(int result)
            : base(Utf8.Read(Native.zvr_result_name(result)))
        {
            Result = result;
        }

        internal static void Check(int result)
        {
            if (result != 0) throw new ZvrException(result);
        }
    }

    /// <summary>Owns one reference to a handle of the C library.</summary>
    internal sealed class NativeHandle : SafeHandle
    {
        private NativeHandle() : base(IntPtr.Zero, true) { }

        public override bool IsInvalid { get { return handle == IntPtr.Zero; } }

        // Runs once, from Dispose or from the finalizer thread; the library
        // may be called from any thread.
        protected override bool ReleaseHandle()
        {
            return Native.zvr_release(handle) == 0;
        }

        /// <summary>Takes over a reference the library handed out; null for NULL.</summary>
        internal static NativeHandle Own(IntPtr value)
        {
            if (value == IntPtr.Zero) return null;
            var owned = new NativeHandle();
            owned.SetHandle(value);
            return owned;
        }

        /// <summary>Adds a reference to a handle lent to a callback, so the
        /// wrapper outlives the callback.</summary>
        internal static NativeHandle Retain(IntPtr borrowed)
        {
            if (borrowed == IntPtr.Zero) return null;
            ZvrException.Check(Native.zvr_retain(borrowed));
            return Own(borrowed);
        }
    }

    /// <summary>Base of the wrappers: one native handle, read-only views.</summary>
    public abstract class NativeObject : IDisposable
    {
        internal readonly NativeHandle Handle;

        internal NativeObject(NativeHandle handle) { Handle = handle; }

        public virtual void Dispose() { Handle.Dispose(); }

        // Text of a getter: null when absent, and null when the field holds a
        // JSON value that is not a string (read it with FieldJson then).
        internal string Text(Native.TextGetter getter)
        {
            IntPtr text;
            int result = getter(Handle, out text);
            if (result == ResultNotText) return null;
            ZvrException.Check(result);
            string read = Utf8.Read(text);
            // The text belongs to the handle: it must outlive the copy.
            GC.KeepAlive(Handle);
            return read;
        }

        internal long Int64(Native.Int64Getter getter)
        {
            long value;
            ZvrException.Check(getter(Handle, out value));
            return value;
        }

        internal NativeHandle Child(Native.HandleGetter getter)
        {
            IntPtr child;
            ZvrException.Check(getter(Handle, out child));
            return NativeHandle.Own(child);
        }

        private const int ResultNotText = 6;
    }

    internal static class Utf8
    {
        /// <summary>NUL-terminated UTF-8, or null for null. A string holding a
        /// NUL throws ZvrException (ZVR_E_INVALID_ARGUMENT): the library would
        /// read only what comes before it, so two different idempotency keys
        /// or offer ids could name the same one.</summary>
        internal static byte[] Bytes(string text)
        {
            if (text == null) return null;
            if (text.IndexOf('\0') >= 0) throw new ZvrException(ResultInvalidArgument);
            var bytes = new byte[Encoding.UTF8.GetByteCount(text) + 1];
            Encoding.UTF8.GetBytes(text, 0, text.Length, bytes, 0);
            return bytes;
        }

        private const int ResultInvalidArgument = 4;

        internal static string Read(IntPtr text)
        {
            if (text == IntPtr.Zero) return null;
            int length = 0;
            while (Marshal.ReadByte(text, length) != 0) ++length;
            return Read(text, length);
        }

        internal static string Read(IntPtr text, int length)
        {
            var bytes = new byte[length];
            Marshal.Copy(text, bytes, 0, length);
            return Encoding.UTF8.GetString(bytes);
        }

        /// <summary>Native copies of strings for a struct, freed together.</summary>
        internal sealed class Block : IDisposable
        {
            private readonly System.Collections.Generic.List<IntPtr> allocated =
                new System.Collections.Generic.List<IntPtr>();

            internal IntPtr Add(string text)
            {
                if (text == null) return IntPtr.Zero;
                byte[] bytes = Bytes(text);
                IntPtr copy = Marshal.AllocHGlobal(bytes.Length);
                Marshal.Copy(bytes, 0, copy, bytes.Length);
                allocated.Add(copy);
                return copy;
            }

            public void Dispose()
            {
                foreach (IntPtr copy in allocated) Marshal.FreeHGlobal(copy);
                allocated.Clear();
            }
        }
    }
}

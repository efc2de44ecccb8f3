// IL2CPP (Unity's ahead-of-time compiler) turns into native entry points only
// the static methods marked with an attribute of this name. Unity ships it in
// UnityEngine; elsewhere (Mono, .NET) this local one stands in.
#if !UNITY_5_3_OR_NEWER
namespace AOT
{
    [System.AttributeUsage(System.AttributeTargets.Method)]
    internal sealed class MonoPInvokeCallbackAttribute : System.Attribute
    {
        public MonoPInvokeCallbackAttribute(System.Type type) { }
    }
}
#endif

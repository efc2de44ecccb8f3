// Samples of docs/c-and-csharp.md: the C# binding as a Unity game uses it.
// Compiled against the binding, without UnityEngine (MonoBehaviour stands in).
using System;
using Zorvane.Rewards;

public class MonoBehaviour { }

//! [csharp_screen]
public partial class RewardsScreen : MonoBehaviour
{
    private OfferList shown;

    void Start()
    {
        Rewards.Configure(new Configuration
        {
            ServiceHost = "rewards.example.com",
            AppId = "my-game",
            AccessToken = PlayerToken(),
        });
        Rewards.FetchOffers((offers, error) =>
        {
            // Runs in Update, on Unity's main thread: safe to touch the UI.
            if (error != null) { ShowError(error.Message ?? "Could not load rewards"); return; }
            if (shown != null) shown.Dispose();
            shown = offers;
            foreach (Offer offer in offers) AddRow(offer.Id, offer.Name, offer.Points);
        });
    }

    // Once a frame: completions and notifications run here.
    void Update() { MainQueue.Drain(); }

    void OnDestroy() { if (shown != null) shown.Dispose(); }
}
//! [csharp_screen]

public partial class RewardsScreen
{
    static string PlayerToken() { return "token"; }
    static void ShowError(string text) { Console.WriteLine(text); }
    static void ForgetSaved(string key) { Console.WriteLine(key); }
    static void AddRow(string id, string name, long points) { Console.WriteLine(id + name + points); }

    //! [csharp_redeem]
    void Redeem(Offer offer)
    {
        if (!offer.IsSkillChallengeRequired) { Place(offer.Id, null); return; }
        Rewards.FetchSkillQuestion((question, error) =>
        {
            if (error != null) { ShowError(error.Message); return; }
            AskPlayer(question.Question, answer =>
                Rewards.AnswerSkillQuestion(offer.Id, question.Id, answer, (challenge, failure) =>
                {
                    if (failure != null || challenge.Status != "passed") { ShowError("Not this time"); return; }
                    Place(offer.Id, challenge.Id);
                }));
        });
    }

    void Place(string offerId, string challengeId)
    {
        using (var request = new OrderRequest(offerId, 1).WithChallengeId(challengeId))
            Rewards.PlaceOrder(request, (order, error) =>
            {
                if (error != null) { ShowError(error.Message ?? "The reward could not be redeemed"); return; }
                Console.WriteLine("Redeemed: order " + order.Id + ", balance " + order.User.AvailablePoints);
                order.Dispose();
            });
    }
    //! [csharp_redeem]

    static void AskPlayer(string question, Action<string> answered) { answered("42"); }
}

//! [csharp_close_screen]
public class OffersPanel : MonoBehaviour
{
    // Owns what the panel starts. Disposed when the panel closes: the
    // completions of what is still under way then never run.
    private readonly Scope scope = new Scope();
    public int Rows { get; private set; }

    void OnEnable()
    {
        Rewards.FetchOffers(scope, (offers, error) =>
        {
            // Runs only while the panel is open: it may touch the panel.
            if (error != null) { error.Dispose(); return; }
            using (offers) Rows = offers.Count;
        });
    }

    void Update() { MainQueue.Drain(); }

    void OnDestroy() { scope.Dispose(); }
}
//! [csharp_close_screen]

public class RewardsLifecycle : MonoBehaviour
{
    static void ShowError(string text) { Console.WriteLine(text); }
    static void ForgetSaved(string key) { Console.WriteLine(key); }

    //! [csharp_order_key]
    // The key was saved with the order before its first placement; after a
    // lost answer or a restart, placing it again with it charges once.
    void PlaceSaved(string offerId, string savedKey)
    {
        using (var request = new OrderRequest(offerId, 1).WithIdempotencyKey(savedKey))
            Rewards.PlaceOrder(request, (order, error) =>
            {
                using (order)
                using (error)
                {
                    if (error != null && error.Type == ErrorType.Transport) return;  // unknown: keep the key
                    ForgetSaved(savedKey);
                    if (error != null) ShowError(error.Message);
                }
            });
    }
    //! [csharp_order_key]

    //! [csharp_shutdown]
    // Quitting, or unloading the plugin in the editor: every operation is
    // cancelled (no completion runs), and the SDK lets go of the game's code.
    void OnApplicationQuit() { Rewards.Shutdown(); }
    //! [csharp_shutdown]
}

// The flow through the C# binding against the sandbox service (its address
// in ZVR_SANDBOX_HOST), for what the binding adds to the C interface (whose
// behaviour the C tests cover): its structs and properties, completions on
// the thread that drains the queue and kept alive by the binding alone,
// scopes, exceptions, disposal, and no native handle left.
using System;
using System.Collections.Generic;
using System.Linq;
using System.Threading;
using Zorvane.Rewards;

static class FlowTest
{
    static int failures, mainThread;

    static void Check(bool condition, string what)
    {
        if (condition) return;
        Console.Error.WriteLine("CHECK failed: " + what);
        ++failures;
    }

    // Runs the queue until the completion came, then until it is dry, so
    // that a second call would show.
    static T Await<T>(Action<Action<T, RewardsError>> start, out RewardsError error) where T : class
    {
        int calls = 0;
        T result = null;
        RewardsError failure = null;
        start((r, e) =>
        {
            ++calls;
            Check(Thread.CurrentThread.ManagedThreadId == mainThread, "completion on the draining thread");
            result = r;
            failure = e;
        });
        Check(calls == 0, "no completion inside the call");
        // The completion lives only behind a GCHandle now: a collection must not lose it.
        GC.Collect();
        GC.WaitForPendingFinalizers();
        Check(MainQueue.RunUntil(() => calls > 0, TimeSpan.FromSeconds(20)), "completion within 20 s");
        while (MainQueue.Drain() > 0) { }
        Check(calls == 1, "exactly one completion");
        error = failure;
        return result;
    }

    static Offer Find(OfferList list, string id) => list.FirstOrDefault(offer => offer.Id == id);

    static int Main()
    {
        mainThread = Thread.CurrentThread.ManagedThreadId;
        uint handlesBefore = Rewards.LiveHandleCount;
        string host = Environment.GetEnvironmentVariable("ZVR_SANDBOX_HOST");
        Rewards.Configure(new Configuration
        {
            ServiceHost = host, AppId = "sandbox-app", AccessToken = "sandbox-token", AllowInsecureHttp = true, Locale = "en_US",
        });

        var seen = new List<string>();
        long available = -1, test = -1;
        RewardsError notifiedError = null;
        IDisposable subscription = Notifications.Subscribe(null, n =>
        {
            seen.Add(n.Name);
            if (n.Name == Notification.UserDidUpdate) n.TryGetBalances(out available, out test);
            if (n.Name == Notification.RequestDidFail) notifiedError = n.Error;
            n.Dispose();
        });
        int fetchedLines = 0;
        Logger.SetSink(line => { if (line.Contains("Fetched offers: ")) Interlocked.Increment(ref fetchedLines); });
        Logger.Categories = Logger.CategoryRewards;
        Logger.Level = Logger.LevelCompact;

        // Offers with their options tree.
        OfferList offers = Await<OfferList>(done => Rewards.FetchOffers(done), out RewardsError error);
        Check(error == null && offers != null && offers.Count > 0, "offers");
        Offer mug = Find(offers, "101");
        Check(mug != null && mug.Name == "Coffee mug" && mug.Points == 150 && mug.IsFeatured &&
              mug.Status == OfferStatus.Available && mug.FieldJson(OfferField.Data).Contains("MUG-01"), "the mug");
        Offer black = Find(Find(offers, "106").Options, "106-black");
        Check(black != null && black.Options.Count > 0 && black.Options[0].Options.Count == 0, "options of options");
        Check(fetchedLines == 1, "the log sink saw the delivery");

        // The question and an answer to it (right or wrong, a challenge comes back).
        SkillQuestion question = Await<SkillQuestion>(Rewards.FetchSkillQuestion, out error);
        Check(error == null && question.Id != null && question.Question != null, "a question");
        SkillChallenge challenge = Await<SkillChallenge>(
            done => Rewards.AnswerSkillQuestion("103", question.Id, "0", done), out error);
        Check(error == null && (challenge.Status == "passed" || challenge.Status == "failed"), "a challenge");

        // The order, with the challenge id and an address.
        Order order;
        using (var request = new OrderRequest("101", 1)
                   .WithChallengeId(challenge.Id)
                   .WithShippingAddress(new ShippingAddress { Name = "Ada Player", City = "Montréal", Country = "CA" }))
        {
            Check(request.Json.Contains("\"city\":\"Montréal\""), "the request's JSON");
            order = Await<Order>(done => Rewards.PlaceOrder(request, done), out error);
        }
        Check(error == null && order.OfferId == "101" && order.ShippingAddress.City == "Montréal" &&
              order.User.AvailablePoints == 5000 - 150 && available == order.User.AvailablePoints && test == 0,
              "the order, its balance and the balance's notification");

        OrderList orders = Await<OrderList>(Rewards.FetchOrders, out error);
        Check(error == null && orders.Count == 1 && orders[0].Id == order.Id, "the orders list");

        // A key of the game's: kept on the request, sent as a header only. A
        // string with a NUL is refused: the library would read only its start,
        // so two keys differing after it would name one order.
        using (var request = new OrderRequest("101", 1).WithIdempotencyKey("game-order-101"))
        {
            Check(request.IdempotencyKey == "game-order-101" && !request.Json.Contains("game-order"), "the key");
            try { request.WithIdempotencyKey("game-order-101\0-second"); Check(false, "a key with a NUL"); }
            catch (ZvrException e) { Check(e.Result == 4 && request.IdempotencyKey == "game-order-101", "the key kept"); }
        }

        // Disposing a scope cancels its operation in flight: the game's
        // completion never runs, and the binding lets go of it once.
        int cancelledCalls = 0;
        var scope = new Scope();
        Rewards.FetchOrders(scope, (o, e) => ++cancelledCalls);
        Check(Rewards.PendingCompletionCount == 1 && scope.PendingCount == 1, "one operation under way");
        scope.Dispose();
        while (MainQueue.Drain() > 0) { }
        Check(cancelledCalls == 0 && Rewards.PendingCompletionCount == 0, "cancelled, let go, never called");
        try { Rewards.FetchOrders(scope, (o, e) => ++cancelledCalls); Check(false, "a disposed scope starts nothing"); }
        catch (ObjectDisposedException) { }
        Check(Rewards.PendingCompletionCount == 0, "nothing held for a refused start");

        // A refusal: the error reaches the completion and the failure notification.
        Order refused = Await<Order>(done => Rewards.PlaceOrder(new OrderRequest("111", 1), done), out error);
        Check(refused == null && error != null && error.Type == ErrorType.Service &&
              error.Message.StartsWith("Reward: Insufficient points"), "a service error: " + error);
        Check(notifiedError != null && notifiedError.Message == error.Message, "the failure notification's error");

        // A throwing completion is reported, and the queue goes on.
        Exception reported = null;
        Rewards.UnhandledCallbackException = e => reported = e;
        Rewards.PlaceOrder(null, (o, e) => { throw new InvalidOperationException("game bug"); });
        RewardsError validation = Await<Order>(done => Rewards.PlaceOrder(null, done), out error) == null ? error : null;
        Check(reported is InvalidOperationException && validation != null && validation.Code == "ZVErrorServerNoRequest",
              "the exception reported, then the validation error");

        // Disposed objects refuse to be read instead of reaching freed memory.
        mug.Dispose();
        try { Check(mug.Id == null, "unreachable"); failures++; }
        catch (ObjectDisposedException) { }

        Check(seen.Contains(Notification.DidFetchOffers) && seen.Contains(Notification.DidPlaceOrder) &&
              seen.Contains(Notification.DidAnswerSkillQuestion) && seen.Contains(Notification.ValidationDidFail),
              "notifications: " + string.Join(", ", seen.ToArray()));
        subscription.Dispose();
        Logger.SetSink(null);
        Logger.Level = Logger.LevelOff;

        // The retry policy, last in the struct, reaches the library: a
        // closed port is tried twice.
        var configuration = new Configuration
        {
            ServiceHost = "http://127.0.0.1:1", AppId = "sandbox-app", AllowInsecureHttp = true,
            Retry = new RetryPolicy { MaxAttempts = 2, BaseDelay = TimeSpan.FromMilliseconds(1) },
        };
        Rewards.Configure(configuration);
        using (Await<OrderList>(Rewards.FetchOrders, out error))
        using (error)
            Check(error != null && error.Type == ErrorType.Transport && error.Attempts == 2, "two attempts: " + error);
        configuration.ServiceHost = host;
        configuration.AccessToken = "sandbox-token";
        Rewards.Configure(configuration);

        // Shutdown with an operation in flight lets go of its completion
        // before it returns and removes the wake-up hook; then all works again.
        int wakeUps = 0, droppedCalls = 0;
        MainQueue.SetWakeUp(() => Interlocked.Increment(ref wakeUps));
        Rewards.FetchOrders((o, e) => ++droppedCalls);
        Rewards.PlaceOrder(null, (o, e) => ++droppedCalls);  // its failure is queued at once
        Check(wakeUps >= 1, "the hook woke the game");
        Rewards.Shutdown();
        Check(droppedCalls == 0 && Rewards.PendingCompletionCount == 0, "shutdown let go of the completion");
        int wokenBefore = wakeUps;
        using (OrderList after = Await<OrderList>(Rewards.FetchOrders, out error))
            Check(error == null && after.Count == 1 && wakeUps == wokenBefore, "used again, no hook: " + error);

        foreach (IDisposable held in new IDisposable[] { offers, question, challenge, order, orders, validation, notifiedError })
            held.Dispose();
        GC.Collect();
        GC.WaitForPendingFinalizers();
        Check(Rewards.LiveHandleCount == handlesBefore, "no native handle left: " + Rewards.LiveHandleCount);

        if (failures > 0) Console.Error.WriteLine(failures + " check(s) failed");
        return failures > 0 ? 1 : 0;
    }
}

/*
 * The rules of the link between QV and the daemon, both ends, for spin. `model/check` runs every search; the test in
 * tests/model replays the tables of this file against the daemon's own data link, so that neither changes alone.
 *
 * What is modelled
 *   The daemon's end: the checks of a received frame, the sequence number, the synchronised flag, the reset-pending
 *   flag and the stored last reply; a fresh data link (the daemon or only its link started anew) at any time, also
 *   between a request's execution and its reply.
 *   QV's end: one request at a time; its rules stand above the process QV.
 *   The line: first in, first out. It loses frames, damages them (length or CRC shows it), brings broken frames out of
 *   nothing, and loses delimiters, so that the bytes before them spoil the next frame. It makes no copies: a frame comes
 *   twice because its sender sent it twice. Frames that wait while the daemon is busy may be read in one piece, which
 *   gives the first of them with one byte more and none of the others.
 *   Time: a time-out may come early, while the answer is still on its way. How long anything takes plays no part.
 *
 * What is not modelled
 *   A damaged frame that passes the CRC (one in 65 536 random ones). What is in a message: a request is a read, harmless
 *   to repeat, or a call. Which request a frame belongs to is known to the model only (`id`), to neither end.
 *
 * Faults
 *   Each loss, damaged frame, broken frame out of nothing, lost delimiter, early time-out and restart is one fault. At
 *   most FAULTS of them come together: after each answered request with nothing more on the way they may all come
 *   again, so a run has any number of requests and any number of faults. FAULTS 0: no limit at all.
 *
 * Parameters (-D)
 *   MOD numbers (16 on the line), FAULTS, LINE frames on the way in each direction, TRIES sendings of one frame by QV.
 *   CALM: at some moment the faults end for good. TRUST_NUMBER and the other switches of QV: see there.
 */

#ifndef MOD
#define MOD 16
#endif
#ifndef FAULTS
#define FAULTS 3
#endif
#ifndef LINE
#define LINE 2
#endif
#ifndef TRIES
#define TRIES 2
#endif

#define NEXT(n) (((n) + 1) % MOD)

/* ---------------------------------------------------------------------------------------------------------------------
 * The daemon's rules. The test reads these lines too: one row a line, and exactly one row fits each case.
 *
 * RULE: what came | its reset flag | synchronised | its number | a reply is stored
 *       || what is done | synchronised after it | our number after it, before anything is sent
 *   its number:  eSame is the one that we expect (that of our last frame), eBefore one less (a repeat), eOther any other
 *   after it:    eStay leaves it as it is, eTake takes the frame's number
 */
#define eNo 0
#define eYes 1
#define eAny 9

#define eShort 0 /* four bytes or fewer */
#define eBadCrc 1
#define eGood 2

#define eSame 0
#define eBefore 1
#define eOther 2

#define eDeliver 0 /* hand the message up; its reply is sent afterwards */
#define eReset 1   /* send a reset frame */
#define eResend 2  /* send the stored reply once more */

#define eStay 7
#define eTake 8

#define DAEMON_RULES \
    RULE(eShort,  eAny, eAny, eAny,    eAny, eReset,   eNo,   eStay) \
    RULE(eBadCrc, eAny, eAny, eAny,    eYes, eResend,  eStay, eStay) \
    RULE(eBadCrc, eAny, eAny, eAny,    eNo,  eReset,   eNo,   eStay) \
    RULE(eGood,   eYes, eAny, eAny,    eAny, eDeliver, eYes,  eTake) \
    RULE(eGood,   eNo,  eNo,  eAny,    eAny, eReset,   eNo,   eStay) \
    RULE(eGood,   eNo,  eYes, eSame,   eAny, eDeliver, eYes,  eStay) \
    RULE(eGood,   eNo,  eYes, eBefore, eYes, eResend,  eStay, eStay) \
    RULE(eGood,   eNo,  eYes, eBefore, eNo,  eReset,   eNo,   eStay) \
    RULE(eGood,   eNo,  eYes, eOther,  eAny, eReset,   eNo,   eStay)

/*
 * SEND: for | reset-pending before it | its number | its reset flag || our number after it | it becomes the stored reply
 *   What is sent with ePending clears the reset-pending flag.
 */
#define eStored 4  /* as in the stored reply */
#define eNext 5    /* ours plus one */
#define ePending 6 /* as the reset-pending flag says */

#define DAEMON_SENDS \
    SEND(eDeliver, eStay, eNext,   ePending, eNext, eYes) \
    SEND(eReset,   eYes,  eNext,   ePending, eNext, eYes) \
    SEND(eResend,  eStay, eStored, eStored,  eStay, eNo)

/* ------------------------------------------------------------------------------------------------------------------ */

#define SYNC 0             /* id of the harmless read that gets in step */
#define IDS (2 * LINE + 2) /* of requests; an id that has left no trace is given again */

/* What is in a reply. A read's may be just that of the harmless read. */
#define bReset 0
#define bRead 1
#define bDone 2
#define bRefused 3

chan toDaemon = [LINE] of { byte /* number */, bit /* reset flag */, byte /* id */, bit /* call */ };
chan toQV = [LINE] of { byte /* number */, byte /* what */, byte /* id */ };

#define QUIET (len(toDaemon) + len(toQV) == 0)

byte executed[IDS + 1]; /* how often each call was executed */
bit ruledOut[IDS + 1];  /* QV has said that it was not and never will be */
bit calm;

#if FAULTS == 0
#define FAULTS_AGAIN skip
#define REPLY_ID 0
#define MAY_FAIL (!calm)
#define COUNT_FAULT skip
#else
byte faults = FAULTS;
#define MAY_FAIL (faults > 0 && !calm)
#define COUNT_FAULT faults--
#define REPLY_ID id
#define FAULTS_AGAIN \
    if \
    :: QUIET && !calm -> faults = FAULTS \
    :: else \
    fi
#endif

#define FAULT(text) COUNT_FAULT; printf(text)

/* --- the daemon -------------------------------------------------------------------------------------------------- */

byte number; /* of the last frame sent, or of the last reset frame received */
bit synchronised;
bit resetPending;
bit stored; /* the last reply: */
byte storedNumber, storedWhat, storedId;
bit storedFlag;
bit dirt; /* bytes without a delimiter have come */

inline freshLink()
{
    number = 0;
    synchronised = 0;
    resetPending = 0;
    stored = 0;
    storedNumber = 0;
    storedFlag = 0;
    storedWhat = 0;
    storedId = 0;
    dirt = 0;
    newSession()
}

/* A session lasts from one accepted reset flag, or one fresh link, to the next. Whatever the number of faults, only
 * inside one is nothing executed twice: without a limit, old frames may meet their number again. */
inline newSession()
{
#if FAULTS == 0
    byte k;
    k = 0;
    do
    :: k <= IDS -> executed[k] = 0; k++
    :: else -> break
    od;
    k = 0
#else
    skip
#endif
}

#define FITS(want, have) (want == eAny || want == (have))

#define RULE(came_, flag_, synchronised_, relation_, stored_, action_, synchronisedAfter, numberAfter) \
    :: FITS(came_, came) && FITS(flag_, hisFlag) && FITS(synchronised_, synchronised) && \
            FITS(relation_, relation) && FITS(stored_, stored) -> \
        action = action_; \
        if \
        :: synchronisedAfter == eYes -> synchronised = 1 \
        :: synchronisedAfter == eNo -> synchronised = 0 \
        :: else \
        fi; \
        if \
        :: numberAfter == eTake -> number = his; newSession() \
        :: else \
        fi

#define SEND(action_, pendingBefore, itsNumber, itsFlag, numberAfter, isStored) \
    :: action == action_ -> \
        if \
        :: pendingBefore == eYes -> resetPending = 1 \
        :: else \
        fi; \
        storedNumber = (itsNumber == eNext -> NEXT(number) : storedNumber); \
        storedFlag = (itsFlag == ePending -> resetPending : storedFlag); \
        if \
        :: isStored == eYes -> \
            stored = 1; \
            storedWhat = what; \
            storedId = REPLY_ID \
        :: else \
        fi; \
        if \
        :: numberAfter == eNext -> number = NEXT(number) \
        :: else \
        fi; \
        if \
        :: itsFlag == ePending -> resetPending = 0 \
        :: else \
        fi

/* One byte more makes the daemon refuse a call of fixed length, and means nothing to one of variable length. */
inline execute()
{
    if
    :: !call -> what = bRead
    :: call && longer -> what = bRefused
    :: call ->
        what = bDone;
        executed[id]++;
        printf("            executed: request %d\n", id);
        assert(executed[id] <= 1); /* no request is executed twice */
#if FAULTS != 0
        assert(!ruledOut[id]); /* nor behind QV's back */
#endif
        if
        :: MAY_FAIL -> FAULT("            the daemon ends before it replies\n"); dies = 1
        :: true
        fi
    fi
}

/* A frame is checked, carried out if it is delivered, and answered. */
inline handle()
{
    if
    :: his == number -> relation = eSame
    :: NEXT(his) == number -> relation = eBefore
    :: else -> relation = eOther
    fi;
    if
    DAEMON_RULES
    :: else -> assert(false) /* a rule for every case */
    fi;
    if
    :: action == eDeliver -> execute()
    :: else -> what = bReset; id = SYNC
    fi;
    if
    :: dies -> freshLink()
    :: else ->
        if
        DAEMON_SENDS
        fi;
        toQV!storedNumber, storedWhat, storedId;
        printf("            daemon: number %d, reset flag %d (%d: reset, read, done, refused)\n", storedNumber,
               storedFlag, storedWhat)
    fi;
    assert(!resetPending);
    assert(!stored || storedFlag == (storedWhat == bReset)); /* no reply looks like a reset frame */
    assert(!stored || storedNumber == number);
    came = 0; his = 0; hisFlag = 0; relation = 0; action = 0; what = 0; id = 0; call = 0; longer = 0; dies = 0
}

active proctype Daemon()
{
    byte came, his, relation, action, what, id;
    bit hisFlag, call, longer, dies;

end:
    do
    :: atomic {
        nempty(toDaemon) && nfull(toQV) ->
        toDaemon?his, hisFlag, id, call;
        came = eGood;
        if
        :: dirt -> dirt = 0; came = eBadCrc
        :: !dirt
        :: !dirt && nempty(toDaemon) -> toDaemon?_, _, _, _; longer = 1; printf("            two frames read at once\n")
        :: !dirt && MAY_FAIL -> FAULT("            damaged to four bytes or fewer\n"); came = eShort
        :: !dirt && MAY_FAIL -> FAULT("            damaged\n"); came = eBadCrc
        fi;
        handle()
    }
    :: atomic { nempty(toDaemon) && MAY_FAIL -> FAULT("            lost\n"); toDaemon?_, _, _, _ }
    :: atomic { nempty(toDaemon) && MAY_FAIL -> FAULT("            delimiter lost\n"); toDaemon?_, _, _, _; dirt = 1 }
    :: atomic {
        nfull(toQV) && MAY_FAIL ->
        FAULT("            noise\n");
        if
        :: came = eShort
        :: came = eBadCrc
        fi;
        dirt = 0;
        handle()
    }
    :: atomic { MAY_FAIL -> FAULT("            the daemon starts anew\n"); freshLink() }
    od
}

/* --- QV --------------------------------------------------------------------------------------------------------------
 * 1. A request is sent with the number of the last reply, n. Only the reply with n + 1 answers it; other replies are
 *    passed over. Without it in time the request is sent again with n, TRIES times in all; then QV gives up, no longer
 *    knows the daemon's number and is out of step.
 * 2. A reset frame puts QV out of step as well. A read is made again; of a call it is unknown whether it was executed.
 *    TRUST_NUMBER: a reset frame with n + 1 says that it was not, and the call is made again too, unless n + 1 is so low
 *    that a fresh daemon may have come to it by a reset for each sending of the call and TRUST_NUMBER - 1 more.
 * 3. To get in step QV sends the harmless read with the reset flag, each time with a number STRIDE further, and waits
 *    for the reply to the last of them. So no earlier one is still on its way when QV goes on, and none can bring the
 *    daemon back in step after a reset that QV has seen, and have it execute what is taken for dead. (SAME_NUMBER
 *    repeats it with the same number.)
 * 4. Started anew, QV waits until nothing of its former life is on the way and gets in step twice: the first number may
 *    by chance be one that its former life used, and the stored reply to that one may come again. (ONCE: only once.)
 * 5. A refusal after a repeat is not believed, since two frames read at once are refused. The request, which had no
 *    effect, is made again with the next number.
 */
#ifndef STRIDE
#define STRIDE 7
#endif

#ifdef SAME_NUMBER
#define NEW_NUMBER(tries) (tries == 0)
#else
#define NEW_NUMBER(tries) true
#endif

#ifdef ONCE
#define TWICE 0
#else
#define TWICE 1
#endif

#define UNTRACED(i) \
    (!toDaemon??[_, _, eval(i), _] && !toQV??[_, _, eval(i)] && !(stored && storedId == i))

#ifdef CALM
byte sent;    /* by QV since the faults have ended; once settled, since the last answer */
bit settled;  /* a request was answered since, and nothing of old was on the way */
bit answered; /* the last request was */

inline inCalm()
{
    if
    :: calm -> sent++; assert(sent <= (settled -> 1 : BOUND)) /* once in step, one sending for each request */
    :: else
    fi
}

active proctype Peace()
{
    calm = 1
}

ltl backInStep { [] (calm -> <> answered) }
#else
#define inCalm() skip
#endif

inline newlyAsked()
{
#ifdef CALM
    answered = 0
#else
    skip
#endif
}

inline inStepAgain()
{
#ifdef CALM
    answered = 1;
    if
    :: sent > 0 && QUIET -> settled = 1; sent = 0
    :: else
    fi;
#endif
    FAULTS_AGAIN
}

/* What QV concludes of a call when a reset frame comes. */
#if defined(RESET_MEANS_NOT_EXECUTED)
#define NOT_EXECUTED true
#elif defined(TRUST_NUMBER)
#define NOT_EXECUTED (n == NEXT(next) && (n == 0 -> MOD : n) >= tries + TRUST_NUMBER)
#else
#define NOT_EXECUTED false
#endif

inline nothingKnown()
{
#ifdef RESET_MEANS_EXECUTED
    assert(executed[request] == 1); /* what a reset cuts short was executed */
#else
    printf("QV: unknown whether request %d was executed\n", request)
#endif
}

inline send(itsNumber, flag, itsId, isCall)
{
    tries++;
    printf("QV: number %d, reset flag %d\n", itsNumber, flag);
    if
    :: nfull(toDaemon) -> toDaemon!itsNumber, flag, itsId, isCall
    :: full(toDaemon)
    fi;
    inCalm()
}

inline timeOut()
{
    if
    :: !QUIET -> FAULT("QV: early time-out\n")
    :: else -> printf("QV: time-out\n")
    fi
}

#define RECEIVED n, what, id
#define DROP n = 0; what = 0; id = 0
#define OUT_OF_STEP_AFTER_RESETS \
    do \
    :: toQV?RECEIVED -> \
        if \
        :: what == bReset -> known = 0 \
        :: else \
        fi \
    :: len(toQV) == 0 -> break \
    od; \
    DROP

active proctype QV()
{
    byte request; /* its id */
    byte next;    /* number of the next frame */
    byte tries;
    byte n, what, id;
    bit isCall;
    bit known; /* in step */
    bit fresh;

off:
    do
    :: atomic { toQV?_, _, _ }
    :: atomic {
        QUIET ->
        fresh = TWICE;
        do
        :: next < MOD - 1 -> next++
        :: break
        od;
        goto newRequest
    }
    od;

idle:
    atomic {
        OUT_OF_STEP_AFTER_RESETS;
newRequest:
        id = IDS;
        do
        :: id > 0 && UNTRACED(id) -> executed[id] = 0; ruledOut[id] = 0; request = id; id--
        :: id > 0 && !UNTRACED(id) -> id--
        :: id == 0 -> break
        od;
        assert(request);
        if
#if FAULTS != 0
        :: isCall = 0
#endif
        :: isCall = 1
        fi;
        newlyAsked();
        printf("QV: request %d (call %d)\n", request, isCall);
round:
        OUT_OF_STEP_AFTER_RESETS;
        tries = 0;
        if
        :: known -> goto sendRequest
        :: else
        fi;
sendSync:
        if
        :: NEW_NUMBER(tries) -> next = (next + STRIDE) % MOD
        :: else
        fi;
        send(next, 1, SYNC, 0);
        goto awaitSync;
sendRequest:
        send(next, 0, request, isCall);
        goto awaitReply;
over:
        request = 0; tries = 0; isCall = 0;
        goto idle;
dies:
        request = 0; tries = 0; isCall = 0; next = 0; known = 0; fresh = 0;
        goto off
    };

awaitSync:
    do
    :: atomic {
        toQV?RECEIVED ->
        if
        :: what == bRead && n == NEXT(next) ->
            next = n;
            DROP;
            tries = 0;
            if
            :: fresh -> fresh = 0; goto sendSync
            :: else -> known = 1; goto sendRequest
            fi
        :: else -> DROP
        fi
    }
    :: atomic { nempty(toQV) && MAY_FAIL -> FAULT("    lost\n"); toQV?_, _, _ }
    :: atomic {
        QUIET || MAY_FAIL ->
        timeOut();
        if
        :: tries < TRIES -> goto sendSync
        :: else -> ruledOut[request] = isCall; goto over
        fi
    }
    :: atomic { MAY_FAIL -> FAULT("QV: starts anew\n"); goto dies }
    od;

awaitReply:
    do
    :: atomic {
        toQV?RECEIVED ->
        if
        :: what == bReset ->
            known = 0;
            if
            :: !isCall || NOT_EXECUTED -> DROP; goto round
            :: else -> nothingKnown(); DROP; goto over
            fi
        :: n == NEXT(next) && (isCall -> what == bDone || what == bRefused : what == bRead) ->
#if FAULTS != 0
            assert(id == request); /* no reply of another request is taken for the answer */
            assert(what != bDone || executed[request] == 1);
            assert(what != bRefused || (executed[request] == 0 && tries > 1));
#endif
            next = n;
            if
            :: what == bRefused && FAULTS != 0 -> DROP; goto round
            :: else -> DROP; inStepAgain(); goto over
            fi
        :: else -> DROP
        fi
    }
    :: atomic { nempty(toQV) && MAY_FAIL -> FAULT("    lost\n"); toQV?_, _, _ }
    :: atomic {
        QUIET || MAY_FAIL ->
        timeOut();
        if
        :: tries < TRIES -> goto sendRequest
        :: else -> known = 0; goto over
        fi
    }
    :: atomic { MAY_FAIL -> FAULT("QV: starts anew\n"); goto dies }
    od
}

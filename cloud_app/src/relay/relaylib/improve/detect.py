"""Finding a person's recurring instructions in their own messages: pure functions, no I/O.

A message is cut into sentences; a sentence is a signal when it corrects or steers the agent
("don't", "do not", "never", "stop", "always", "make sure", "use X instead of Y", "prefer").
A plain imperative ("Add a test for the parser") is a task, not a rule, and is not a signal on
its own; frustration ("again?!", "I told you") marks the signals of its message but says nothing
to write down by itself.

A signal is reduced to its terms: lower case, contractions opened, punctuation and stop words
dropped, each word cut to a simple stem. Signals whose terms are the same, or overlap by at
least `SIMILARITY` (Jaccard), are one instruction. An instruction becomes a suggestion only
when it was given in two different conversations.
"""

import hashlib
import heapq
import re
from dataclasses import dataclass, field

# How alike two signals' terms must be (shared terms over all terms) to be the same instruction.
SIMILARITY = 0.6
# A suggestion needs the instruction in this many different conversations.
MIN_SESSIONS = 2
# Evidence kept per suggestion, newest first, one per conversation before a second of any.
EVIDENCE_LIMIT = 5
# Excerpts are the person's sentence, clipped to this many characters.
EXCERPT_CHARS = 280
# Sentences longer than this are prose, not an instruction to keep.
MAX_SIGNAL_CHARS = 400
# A message longer than this is pasted material (a log, a diff), not steering.
MAX_MESSAGE_CHARS = 4000
# An instruction with this many steps or more is a procedure: a skill rather than a one-line rule.
SKILL_STEPS = 3
RULE_SECTION = "## Rules"

_CONTRACTIONS = {
    "don't": "do not", "dont": "do not", "doesn't": "does not", "didn't": "did not", "won't": "will not",
    "can't": "can not", "cannot": "can not", "shouldn't": "should not", "isn't": "is not", "aren't": "are not",
    "wasn't": "was not", "stop": "stop", "i'm": "i am", "you're": "you are", "it's": "it is", "let's": "let us",
}
# The contractions opened before terms are taken, each a word of its own, in the order above;
# compiled once, and tried only when the sentence holds the letters.
_OPENED = [(short, re.compile(r"\b" + re.escape(short) + r"\b"), long) for short, long in _CONTRACTIONS.items()
           if "'" in short or short in ("dont", "cannot")]
STOP_WORDS = frozenset("""
a an the this that these those it its it's i me my we our you your he she they them their
please pls plz just also again and or but so then than to of in on at by for from with into onto
is are was were be been being am do does did doing will would should could can may might must
here there what which who whom when where why how all any some each every both very really
ok okay hey hi thanks thank yes yeah no not now up out about as if
""".split()) - {"no", "not", "before", "after", "instead", "always", "never"}
# Words kept although they look like stop words: they carry the instruction's sense.
MARKER_TERMS = frozenset({"not", "never", "always", "instead", "before", "after", "stop", "avoid", "prefer"})

_NEGATION = re.compile(r"\b(?:don'?t|do not|never|stop|avoid|quit|no more|shouldn'?t|must not|mustn'?t)\b", re.I)
_ALWAYS = re.compile(r"\b(?:always|make sure|remember to|every time|each time|must)\b", re.I)
_INSTEAD = re.compile(r"\b(?:instead|rather than|not .{1,40} but)\b", re.I)
_PREFER = re.compile(r"\b(?:prefer|stick to|use only|only use)\b", re.I)
_FRUSTRATION = re.compile(r"(?:\?!|!!|\bagain\b|\bi told you\b|\bhow many times\b|\bseriously\b|\bwtf\b"
                          r"|\bfor the last time\b|\bstill\b)", re.I)
_IMPERATIVE = re.compile(r"^(?:please\s+)?(?:use|run|add|keep|write|put|check|call|read|test|commit|format|"
                         r"ask|stop|avoid|prefer|remove|delete|leave|make|do|don'?t|never|always)\b", re.I)
# Negations that are conversation, not an instruction: "never mind", "don't worry", "it doesn't work".
_IDIOMS = re.compile(r"\b(?:never ?mind|don'?t worry|no worries|not sure|(?:do|did)(?: not|n'?t) (?:know|understand|"
                     r"see|think|get)|doesn'?t matter|(?:does|did|is|was)(?: not|n'?t) work(?:ing)?|not working)\b",
                     re.I)
# A sentence about the person or the state of things ("I never saw that", "This is never called")
# rather than to the agent, unless it says what the person wants.
_NOT_TO_THE_AGENT = re.compile(r"^(?:i|i'm|i've|we|it|it's|this|that|there|he|she|they)\b(?!.*\b(?:prefer|want|"
                               r"need|expect|like|told you)\b)", re.I)
_SENTENCES = re.compile(r"(?<=[.!?;])\s+|\n+")
_WORD = re.compile(r"[a-z0-9][a-z0-9_\-/.+#]*[a-z0-9+#]|[a-z0-9]")
_STEP = re.compile(r"(?:^|\s)(?:\d+[.)]|first\b|then\b|next\b|finally\b|after that\b)", re.I)
_SLUG_DROP = re.compile(r"[^a-z0-9]+")


@dataclass
class Turn:
    """One message of the person, as a log reader found it."""
    session_id: str
    turn_index: int
    agent: str
    text: str
    observed_at: float


@dataclass(eq=False)
class Signal:
    session_id: str
    turn_index: int
    agent: str
    kinds: list
    excerpt: str
    terms: list
    observed_at: float
    key: frozenset = field(init=False, repr=False)

    def __post_init__(self):
        self.key = frozenset(self.terms)


@dataclass(eq=False)
class Cluster:
    terms: frozenset
    signals: list = field(default_factory=list)
    sessions: set = field(default_factory=set)

    def add(self, signals):
        self.signals.extend(signals)
        self.sessions.update(signal.session_id for signal in signals)


class Clustering:
    """Clusters kept up to date as signals arrive, so that one new signal costs one lookup rather
    than a clustering of everything said before. `build` starts over from a list of signals."""

    def __init__(self, threshold=SIMILARITY):
        self.threshold = threshold
        self.clusters = []
        self._by_key = {}

    def build(self, signals):
        self.clusters = cluster(signals, self.threshold)
        self._by_key = {signal.key: found for found in self.clusters for signal in found.signals}

    def add(self, signal):
        """Puts a signal into its cluster (a new one if none is alike); returns the cluster."""
        found = self._by_key.get(signal.key)
        if found is None:
            found = next((existing for existing in self.clusters
                          if similarity(existing.terms, signal.key) >= self.threshold), None)
            if found is None:
                found = Cluster(signal.key)
                self.clusters.append(found)
            self._by_key[signal.key] = found
        found.add([signal])
        return found


def stem(word):
    """A simple suffix stemmer: enough that "committing", "commits" and "commit" meet."""
    for suffix in ("ing", "ed", "es", "s"):
        if len(word) > len(suffix) + 2 and word.endswith(suffix) and not word.endswith("ss"):
            word = word[:-len(suffix)]
            if len(word) > 3 and word[-1] == word[-2] and word[-1] not in "lsz":
                word = word[:-1]
            break
    if len(word) > 3 and word.endswith("e"):
        word = word[:-1]
    return word


def normalise(sentence):
    """The sentence's terms in order: stems of its words, without stop words, each once."""
    text = sentence.lower().replace("\u2019", "'")
    for short, pattern, long in _OPENED:
        if short in text:
            text = pattern.sub(long, text)
    terms = []
    for word in _WORD.findall(text):
        word = word.strip(".-/")
        if not word or (word in STOP_WORDS and word not in MARKER_TERMS):
            continue
        term = word if word in MARKER_TERMS or "." in word or "/" in word else stem(word)
        if term not in terms:
            terms.append(term)
    return terms


def kinds_of(sentence):
    kinds = []
    if _NEGATION.search(sentence):
        kinds.append("negation")
    if _ALWAYS.search(sentence):
        kinds.append("always")
    if _INSTEAD.search(sentence):
        kinds.append("instead")
    if _PREFER.search(sentence):
        kinds.append("preference")
    return kinds


def clip(text, limit=EXCERPT_CHARS):
    text = " ".join(text.split())
    return text if len(text) <= limit else text[:limit - 1].rstrip() + "\u2026"


def signals_of(turn):
    """The corrections and steering in one message of the person."""
    text = turn.text.strip()
    if not text or len(text) > MAX_MESSAGE_CHARS:
        return []
    frustrated = bool(_FRUSTRATION.search(text))
    found = []
    for sentence in _SENTENCES.split(text):
        sentence = sentence.strip(" \t-*>")
        if not sentence or len(sentence) > MAX_SIGNAL_CHARS:
            continue
        # A question asks; it does not instruct.
        if sentence.endswith("?") or _IDIOMS.search(sentence) or _NOT_TO_THE_AGENT.search(sentence):
            continue
        kinds = kinds_of(sentence)
        if not kinds:
            continue
        if _IMPERATIVE.search(sentence):
            kinds.append("imperative")
        if frustrated:
            kinds.append("frustration")
        terms = normalise(sentence)
        # "Don't." or "Always!" alone names nothing to do.
        if len([term for term in terms if term not in MARKER_TERMS]) < 1:
            continue
        found.append(Signal(turn.session_id, turn.turn_index, turn.agent, kinds, clip(sentence), terms,
                            turn.observed_at))
    return found


def similarity(a, b):
    if not a or not b:
        return 0.0
    return len(a & b) / len(a | b)


def cluster(signals, threshold=SIMILARITY):
    """Groups signals that give the same instruction. Identical term sets meet at once; distinct
    ones are compared pairwise, which stays cheap because a person repeats a few instructions."""
    by_terms = {}
    for signal in signals:
        by_terms.setdefault(signal.key, []).append(signal)
    # The largest groups first, so a cluster is named after its most frequent form.
    groups = sorted(by_terms.items(), key=lambda item: (-len(item[1]), sorted(item[0])))
    clusters = []
    for terms, members in groups:
        for existing in clusters:
            if similarity(existing.terms, terms) >= threshold:
                existing.add(members)
                break
        else:
            created = Cluster(terms)
            created.add(members)
            clusters.append(created)
    return clusters


def recurring(clusters, min_sessions=MIN_SESSIONS):
    return [found for found in clusters if len(found.sessions) >= min_sessions]


def evidence_of(found, limit=EVIDENCE_LIMIT):
    """The newest signals, one per conversation first: the person's own words."""
    def order(signal):
        return (-signal.observed_at, signal.session_id, signal.turn_index)

    newest = {}
    for signal in found.signals:
        held = newest.get(signal.session_id)
        if held is None or order(signal) < order(held):
            newest[signal.session_id] = signal
    chosen = heapq.nsmallest(limit, newest.values(), key=order)
    if len(chosen) < limit:
        taken = set(map(id, chosen))
        chosen += heapq.nsmallest(limit - len(chosen), (s for s in found.signals if id(s) not in taken), key=order)
    return chosen


def _as_rule(sentence):
    """The person's sentence as a rule: no "please", no shouting, a capital and a full stop."""
    text = " ".join(sentence.split())
    text = re.sub(r"^(?:please|pls|plz|and|also|so|ok|okay)[,\s]+", "", text, flags=re.I)
    text = re.sub(r"[!?]+$", "", text).rstrip(" ,;:")
    text = re.sub(r",?\s*(?:please|ok)$", "", text, flags=re.I)
    if not text:
        return text
    text = text[0].upper() + text[1:]
    return text if text.endswith(".") else text + "."


def slug_of(terms):
    words = [_SLUG_DROP.sub("-", term).strip("-") for term in terms if term not in MARKER_TERMS]
    slug = "-".join(word for word in words[:5] if word)
    return slug or "instruction"


def signature(terms):
    return " ".join(sorted(terms))


def suggestion_id(user_id, terms):
    """Stable for the same user and instruction, so a rescan finds its suggestion again."""
    digest = hashlib.sha256((user_id + "\0" + signature(terms)).encode("utf-8")).hexdigest()
    return "imp_" + digest[:20]


def representative(found):
    """The clearest of the person's own sentences for the instruction: the most common form,
    then the shortest."""
    forms = {}
    for signal in found.signals:
        forms.setdefault(signal.key, []).append(signal)
    best = max(forms.values(), key=len)
    return min(best, key=lambda s: (len(s.excerpt), s.excerpt)).excerpt


def targets_for(agents, artifact, slug):
    """Where it would be written: Claude Code reads CLAUDE.md and .claude/skills, Codex reads
    AGENTS.md and .agents/skills; input typed in the drawer's terminals names no agent, and goes
    to AGENTS.md, which both read."""
    out = []
    for agent in agents:
        if artifact == "skill":
            path = f".claude/skills/{slug}/SKILL.md" if agent == "claude" else f".agents/skills/{slug}/SKILL.md"
        else:
            path = "CLAUDE.md" if agent == "claude" else "AGENTS.md"
        if not any(target["path"] == path for target in out):
            out.append({"agent": agent if agent in ("claude", "codex") else "codex", "path": path,
                        "artifact": artifact})
    return out


def word(found, user_id):
    """A suggestion's wording and counts from one recurring cluster (the fields the relay keeps)."""
    terms = sorted(found.terms)
    ordered_terms = list(found.signals[0].terms)
    sentence = _as_rule(representative(found))
    steps = len(_STEP.findall(sentence))
    artifact = "skill" if steps >= SKILL_STEPS else "rule"
    slug = slug_of(ordered_terms)
    counts = {}
    for signal in found.signals:
        counts[signal.agent] = counts.get(signal.agent, 0) + 1
    # Most frequent agent first: its file is the first target, the one the screen uses.
    agents = sorted(counts, key=lambda agent: (-counts[agent], agent))
    kinds = []
    for signal in found.signals:
        for kind in signal.kinds:
            if kind not in kinds:
                kinds.append(kind)
    kind = "correction" if "negation" in kinds or "instead" in kinds else \
        "preference" if "preference" in kinds else "habit"
    sessions = len(found.sessions)
    if artifact == "skill":
        title = clip(sentence, 80)
        body = (f"---\nname: {slug}\ndescription: {clip(sentence, 200)}\n---\n\n# {slug}\n\n{sentence}\n")
    else:
        title = clip(sentence, 80)
        body = f"- {sentence}"
    detail = (f"You said this in {sessions} different conversations ({len(found.signals)} times). "
              f"Writing it down means the agent reads it every time.")
    patterns = []
    for signal in found.signals:
        form = " ".join(signal.terms)
        if form not in patterns:
            patterns.append(form)
    last_seen = max(signal.observed_at for signal in found.signals)
    return {"id": suggestion_id(user_id, terms), "signature": signature(terms), "kind": kind,
            "artifact": artifact, "title": title, "detail": detail, "body": body, "slug": slug,
            "terms": terms, "patterns": patterns[:10], "agents": agents,
            "targets": targets_for(agents, artifact, slug), "section": RULE_SECTION if artifact == "rule" else "",
            "evidence": evidence_of(found), "turn_count": len(found.signals), "session_count": sessions,
            "last_seen": last_seen, "kinds": kinds}


def rank_key(suggestion):
    """The order of the list: more conversations first, then more turns, then the most recent."""
    return (-suggestion["session_count"], -suggestion["turn_count"], -suggestion["last_seen"], suggestion["id"])

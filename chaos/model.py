"""What must be true of a gateway when nothing disturbs it any more: a model that is told the faults."""

LIVES, AWAY, PERHAPS = frozenset({1}), frozenset({0}), frozenset({0, 1})


class Model:
    """It is told of each fault that matters when it is thrown, and of its end; it is asked in the calm that follows.

    What it knows of the gateway:
    - A monitored service comes back by itself, whatever has ended it. The one exception: its start failed for want of a
      process. It then counts as started, and comes back with the next start of the stack.
    - A service that is not monitored stays away when it ends, until the next start of the stack.
    - The process of the daemon is the same until it ends; a new image of it starts the stack.
    - The daemon holds the lock of its pid file; one that could not open the file when it started does without.
    - An accepted identity is written, the last one in the end, once the configuration service can take it. An image
      that ends before that takes it along; what cannot be stored, or goes to a bus that hangs, is not written again.
    """

    def __init__(self, monitored, unmonitored):
        self.monitored, self.unmonitored = tuple(monitored), tuple(unmonitored)
        self.pid = 0
        self.locks = {True}  # whether the daemon may hold the lock of its pid file
        self.killed = set()  # daemons that were killed: the line that one was writing may be torn
        self._away = {}  # name -> AWAY or PERHAPS; all others live
        self._moving = False  # a start of the stack may still be under way
        self._no_processes = False
        self._obstacles = set()  # what keeps an identity from being stored now
        self._stored = (None, None, None)
        self._handed_over = []  # identities, in their order
        self._doubt = False  # whether the last one of them is what is stored in the end
        self._unanswered = False  # one of them may come later than those behind it

    # What is done to it

    def service_killed(self, name):
        """A process of a service was killed."""
        if name in self.unmonitored:
            self._away[name] = PERHAPS if self._moving else AWAY
        if name == "config-manager":
            self.stack_restarted(surely=False)  # so it is when an identity waits and cannot be read

    def stack_restarted(self, surely=True):
        """The stack goes down and comes up, or may do so."""
        self._moving = True
        if surely and not self._no_processes and "disk" not in self._obstacles:
            self._away.clear()
        else:
            self._away = dict.fromkeys(self._away, PERHAPS)

    def daemon_killed(self):
        """The daemon was killed with -9, whatever it was about to do."""
        self.killed.add(self.pid)

    def image_replaced(self):
        """The daemon runs another image in the same process; where it had no lock, it may have it now."""
        self.stack_restarted()
        self.locks = self.locks | {True}
        self._doubt = self._doubt or bool(self._handed_over)

    def daemon_started(self, pid):
        """The daemon had ended, and somebody has started it."""
        self.image_replaced()
        self.pid = pid
        self.locks = {True, False} if "disk" in self._obstacles else {True}

    def processes_refused(self):
        """From now on there is no process to be had: whatever is started now is not."""
        self._no_processes = True
        self._moving = True
        self._away = dict.fromkeys(self.monitored + self.unmonitored, PERHAPS)

    def processes_given(self):
        """There are processes again."""
        self._no_processes = False

    def obstacle(self, name):
        """The disk takes nothing, or the bus does not move."""
        self._obstacles.add(name)
        self._doubt = self._doubt or bool(self._handed_over)
        if name == "bus":
            self.stack_restarted(surely=False)
        if name == "disk" and self._moving:
            self.locks = self.locks | {False}  # the daemon may be about to open the file

    def obstacle_removed(self, name):
        """It is as it was."""
        self._obstacles.discard(name)

    def identity_handed_over(self, identity, accepted):
        """A new identity was sent to the daemon; accepted is false when there was no answer."""
        self._handed_over.append(identity)
        self._unanswered = self._unanswered or not accepted
        self._doubt = self._unanswered or bool(self._obstacles)
        self.stack_restarted(surely=accepted)

    # What is to be true then

    def counts(self, name):
        """How many processes of a service may run."""
        return self._away.get(name, LIVES)

    def identities(self):
        """The identity that is stored in the end; several where more than one may be, and values of one beside values
        of another."""
        known = [self._stored, *self._handed_over]
        return known if self._doubt else known[-1:]

    def may_be_stored(self, identity):
        """Whether the configuration service may hold this identity; None stands for a value that it does not have."""
        known = self.identities()
        if len(known) == 1:
            return identity == known[0]
        return all(value is None or value in {one[place] for one in known} for place, value in enumerate(identity))

    # The calm

    def found(self, counts, identity, locked):
        """What was seen in the calm: from here on it is known. The identity is None where nobody could be asked."""
        self.locks = {locked}
        self._away = {name: AWAY for name, count in counts.items() if count == 0}
        self._moving = False
        if identity is not None:
            self._stored = identity
            self._handed_over = []
            self._doubt = self._unanswered = False

// Empty on purpose: a link needs one source of its own; the room under test
// brings the rest.

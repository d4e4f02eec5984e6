"""The house rules, a file a subject. A rule is a function that takes the tree and yields each breach as file, line and words;
CHECKS lists those of its file. Exceptions are tables beside the rule: what is excepted, and why."""

// The field for a code of a second factor: six digits of an app, or a recovery code.
import { Field } from './ui'

const LONGEST = 20

interface CodeProps {
  label: string
  help?: string
  code: string
  onInput: (code: string) => void
}
export const CodeField = ({ label, help, code, onInput }: CodeProps) => (
  <Field label={label} help={help}>
    {ids => (
      <input
        {...ids}
        name="code"
        autocomplete="one-time-code"
        maxLength={LONGEST}
        spellcheck={false}
        value={code}
        onInput={event => onInput(event.currentTarget.value)}
      />
    )}
  </Field>
)

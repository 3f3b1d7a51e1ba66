// Secrets that are shown once, when they have been made.
import { useState } from 'preact/hooks'
import { t } from './texts'
import { Button, Dialog, confirm, say } from './ui'

interface Unkept {
  once?: boolean // false for what can be shown again
  title: string
  text: string
  onClose: () => void
}
// Asks before it closes, unless the secret has been kept.
export function useKept({ once = true, title, text, onClose }: Unkept) {
  const [kept, setKept] = useState(!once)
  const close = async () => {
    if (kept || (await confirm({ title, text, action: t('peer.close'), danger: true }))) onClose()
  }
  return { keep: () => setKept(true), close: () => void close() }
}

// Copies a text, and says whether the browser did so.
export async function copyText(text: string): Promise<boolean> {
  try {
    await navigator.clipboard.writeText(text)
  } catch {
    say('peer.notCopied')
    return false
  }
  say('peer.copied')
  return true
}

interface SecretProps {
  title: string
  text: string
  secret: string
  onClose: () => void
}
export const SecretOnce = ({ title, text, secret, onClose }: SecretProps) => (
  <Dialog title={title}>
    <p>{text}</p>
    <p class="mono wrap">{secret}</p>
    <footer class="row end">
      <Button onClick={() => void copyText(secret)}>{t('peer.copy')}</Button>
      <Button kind="primary" onClick={onClose}>
        {t('close')}
      </Button>
    </footer>
  </Dialog>
)
